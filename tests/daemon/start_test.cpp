#include <gtest/gtest.h>
#include <sys/stat.h>

#include "daemon_client.h"
#include "support/shell.h"

namespace tmsc::test {
namespace {

namespace fs = std::filesystem;

Settings WithSocket(const std::string& path) {
  return {{"ComSocketPath", path}, {"WatchdogFileUpdateInterval", "1"}};
}

TEST(Start, SocketPathThatDoesNotFitLeavesTheRestRunning) {
  DaemonProcess daemon(WithSocket("/tmp/" + std::string(103, 's')), {false});
  EXPECT_TRUE(daemon.WaitForConsole("[F] CommSvr bind fail. [", 10000));
  ASSERT_TRUE(WaitFor(5000, [&] { return fs::exists(daemon.WatchdogPath()); }));
  const auto first_touch = fs::last_write_time(daemon.WatchdogPath());
  EXPECT_TRUE(WaitFor(3000, [&] {
    return fs::last_write_time(daemon.WatchdogPath()) > first_touch;
  })) << "the watchdog stands still";
  daemon.Signal(SIGTERM);
  EXPECT_EQ(daemon.WaitForExit(3000 + kSlackMs), kExitedWell);
}

TEST(Start, LongestSocketPathServes) {
  const TempFolder folder;
  const std::string path = folder.Path(std::string(107 - folder.Path("").size() - 1, 's'));
  ASSERT_EQ(path.size(), 107U);
  EXPECT_NO_THROW(DaemonProcess(WithSocket(path)));
}

TEST(Start, SocketFolderIsCreatedAndAnOldFileReplaced) {
  const TempFolder folder;
  EXPECT_NO_THROW(DaemonProcess(WithSocket(folder.Path("a/b/c/socket"))));
  EXPECT_TRUE(fs::is_socket(folder.Path("a/b/c/socket"))) << "left by the daemon that was killed";
  std::ofstream(folder.Path("plain")) << "no socket";
  for (const char* const name : {"a/b/c/socket", "plain"}) {
    EXPECT_NO_THROW(DaemonProcess(WithSocket(folder.Path(name))));
  }
}

TEST(Start, WhatCannotBeBoundSaysWhy) {
  const TempFolder folder;
  fs::create_directories(folder.Path("taken/occupied"));
  DaemonProcess daemon(WithSocket(folder.Path("taken")), {false});
  EXPECT_TRUE(daemon.WaitForConsole("[F] CommSvr bind fail. [-1]\n", 10000));
  EXPECT_TRUE(daemon.WaitForConsole(
      "[F] CommSvr bind path[" + folder.Path("taken") + "] [Address already in use]\n", 1000));
}

TEST(Start, PathsTooLongForTheSystemCostNothing) {
  std::string path;
  while (path.size() < 60000) {
    path += "/a";
  }
  Settings settings = WithSocket(path);
  settings["TamselComWatchdogFilePath"] = path;
  settings["SdcardPath"] = path;
  DaemonProcess daemon(settings, {false});
  EXPECT_TRUE(daemon.WaitForConsole("too long for a path", 10000));
  EXPECT_TRUE(daemon.WaitForConsole("Start Svr", 10000));
  daemon.Signal(SIGTERM);
  EXPECT_EQ(daemon.WaitForExit(3000 + kSlackMs), kExitedWell);
  EXPECT_LT(daemon.Usage().ru_maxrss, TAMSEL_TEST_SANITIZED ? 200 * 1024 : 20 * 1024);
}

TEST(Start, ArgumentsPrintTheUsageAndStartNothing) {
  const DaemonProcess daemon;
  const std::string program = "TAMSEL_SETTING_FILE=" + daemon.Folder().Path("settings.xml") + " " +
                              TAMSEL_BIN_DIR + "/tamsel_communication ";
  const struct {
    const char* arguments;
    int exit_code;
    const char* text;
  } rows[] = {{"--help", 0, "usage: tamsel_communication\n"},
              {"--version", 0, "20220725_rkq"},
              {"--socket x", 2, "usage: "},
              {"\"\"", 2, "usage: "}};
  for (const auto& row : rows) {
    const ShellResult run = RunShell("env " + program + row.arguments);
    EXPECT_EQ(run.exit_code, row.exit_code) << row.arguments;
    EXPECT_TRUE(Contains(run.output, row.text)) << run.output;
  }
  EXPECT_EQ(Exchange(daemon, MakeTcpIpRequest(1)).receive_data.status, 0)
      << "its socket is its own";
}

// What is left of the descriptors is for clients, log and watchdog: however many devices are asked,
// the service goes on.
TEST(Start, DevicesNeverTakeTheLastDescriptors) {
  DaemonOptions options;
  options.in_shell = "ulimit -Sn 20; ulimit -Hn 160";  // 120 of them are kept back
  DaemonProcess daemon({}, options);
  const Devices devices[] = {Devices(31), Devices(31), Devices(31)};
  int refused = 0;
  for (const Devices& part : devices) {
    const ResponseReceiveData response = Exchange(daemon, part.Request(1, 500));
    EXPECT_EQ(response.receive_data.status, 0);
    for (const DeviceReceiveData& slot : response.receive_data.receive_data) {
      refused += slot.status == 4 ? 1 : 0;
    }
  }
  EXPECT_GT(refused, 93 - 40);
  EXPECT_LT(refused, 93) << "the soft limit was raised";
  EXPECT_EQ(CountText(daemon.Console(), "Con err.  [127.0.0.1][-1]"), refused);
  std::vector<RawClient> silent;
  for (int i = 0; i < 80; ++i) {
    silent.emplace_back(daemon.SocketPath());
  }
  EXPECT_EQ(Exchange(daemon, MakeTcpIpRequest(2)).receive_data.status, 0);
}

TEST(Start, WithoutStandardStreams) {
  DaemonProcess daemon({{"EnableLogBufferedIO", "0"}}, {true, false});
  const Devices devices(5);
  ExpectAnswered(Exchange(daemon, devices.Request(1)), 5);
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    EXPECT_EQ(fs::read_symlink(daemon.ProcPath("fd/" + std::to_string(descriptor))), "/dev/null");
  }
  daemon.Signal(SIGTERM);
  EXPECT_EQ(daemon.WaitForExit(3000 + kSlackMs), kExitedWell);
  EXPECT_NE(ReadFile(daemon.LogPath()).find("Kill comp."), std::string::npos);
}

TEST(Start, ProgramsThatItStartsInheritNothing) {
  const DaemonProcess daemon;
  const Devices devices(3);
  ExpectAnswered(Exchange(daemon, devices.Request(1)), 3);
  for (const auto& entry : fs::directory_iterator(daemon.ProcPath("fd"))) {
    const std::string number = entry.path().filename();
    const std::string info = ReadFile(daemon.ProcPath("fdinfo/" + number));
    const std::size_t at = info.find("flags:");
    if (at == std::string::npos || std::stoi(number) <= 2) {
      continue;
    }
    EXPECT_NE(std::stol(info.substr(at + 6), nullptr, 8) & O_CLOEXEC, 0)
        << number << " " << fs::read_symlink(entry.path());
  }
}

/// The n-th bit, from 1 on, of a signal mask of /proc/PID/status.
bool HasSignal(const std::string& status, const std::string& mask, int signal) {
  const std::size_t at = status.find(mask + ":");
  return at != std::string::npos &&
         (std::stoull(status.substr(at + mask.size() + 1), nullptr, 16) >> (signal - 1) & 1) != 0;
}

TEST(Start, ATouchThatHangsHasFreshSignalsAndHoldsUpNothing) {
  if (!HasNamespaces()) {
    GTEST_SKIP() << "this machine gives unprivileged users no mount namespace of their own";
  }
  DaemonOptions options;
  options.in_namespace =
      "printf \"#!/bin/sh\\ncat /proc/self/status > $F/touched\\nsleep 100\\n\" > $F/touch && "
      "chmod +x $F/touch && mount --bind $F/touch /usr/bin/touch";
  DaemonProcess daemon({}, options);
  const std::string own = ReadFile(daemon.ProcPath("status"));
  ASSERT_TRUE(
      WaitFor(5000, [&] { return Contains(ReadFile(daemon.Folder().Path("touched")), "SigIgn"); }));
  const std::string touch = ReadFile(daemon.Folder().Path("touched"));
  for (const int signal : {SIGPIPE, SIGXFSZ}) {
    EXPECT_TRUE(HasSignal(own, "SigIgn", signal)) << signal;
    EXPECT_FALSE(HasSignal(touch, "SigIgn", signal)) << signal;
  }
  EXPECT_FALSE(HasSignal(touch, "SigBlk", SIGTERM));
  daemon.Signal(SIGTERM);
  EXPECT_EQ(daemon.WaitForExit(3000 + kSlackMs), kExitedWell);
}

}  // namespace
}  // namespace tmsc::test
