#include <gtest/gtest.h>
#include <sys/stat.h>

#include "daemon_client.h"

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

}  // namespace
}  // namespace tmsc::test
