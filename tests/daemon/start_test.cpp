#include <fcntl.h>

#include <future>

#include "daemon_client.h"
#include "health_reader.h"

namespace tmsc::test {
namespace {

namespace fs = std::filesystem;

TEST(Start, PathsThatAreNoneLeaveTheRestRunning) {
  const TempFolder folder;
  const std::string taken = folder.Path("taken");
  fs::create_directories(taken + "/occupied");
  std::string endless;
  while (endless.size() < 60000) {
    endless += "/a";
  }
  const std::pair<Settings, std::string> rows[] = {
      {{{"ComSocketPath", "/tmp/" + std::string(103, 's')}}, "[F] CommSvr bind fail. [-1]\n"},
      {{{"ComSocketPath", taken}}, "[F] CommSvr bind path[" + taken + "] [Is a directory]\n"},
      {{{"ComSocketPath", endless}, {"TamselComWatchdogFilePath", endless}}, "too long for a path"},
  };
  for (const auto& [settings, text] : rows) {
    DaemonProcess daemon(settings, {false});
    EXPECT_TRUE(daemon.WaitForConsole(text)) << text;
    SleepMs(1000);
    ASSERT_TRUE(daemon.IsRunning());
    EXPECT_LT(daemon.Status("VmHWM"), TAMSEL_TEST_SANITIZED ? 200 * 1024 : 20 * 1024);
    ExpectStops(daemon);
  }
}

TEST(Start, SocketsAreCreatedWithTheirFolderAndReplaced) {
  const TempFolder folder;
  WriteFile(folder.Path("plain"), "no socket");
  const std::string longest(107 - folder.Path().size() - 1, 's');
  const std::string names[] = {longest, "a/b/c/socket", "a/b/c/socket", "plain"};
  // The daemon that was killed has left its socket to the next one.
  for (const std::string& name : names) {
    EXPECT_NO_THROW(DaemonProcess(Settings{{"ComSocketPath", folder.Path(name)}})) << name;
    EXPECT_TRUE(fs::is_socket(folder.Path(name)));
  }
}

// The umask says who may connect, and who may read; nobody else may write.
TEST(Start, OthersWriteToTheSocketAlone) {
  const std::tuple<const char*, int, int, int> rows[] = {
      {"007", 0770, 0750, 0640}, {"022", 0755, 0755, 0644}, {"0", 0777, 0755, 0644}};
  for (const auto& [umask, of_socket, of_folders, of_files] : rows) {
    const TempFolder health;
    const DaemonProcess daemon(
        {{"HealthFilePath", health.Path("health")}, {"EnableLogBufferedIO", "0"}},
        {true, std::string("umask ") + umask});
    const auto rights = [](const std::string& path) { return int(fs::status(path).permissions()); };
    const std::string log = daemon.LogPath(), watchdog = daemon.Folder().Path("check/tmsc");
    EXPECT_EQ(rights(daemon.SocketPath()), of_socket) << umask;
    for (const std::string& file : {log, watchdog, health.Path("health")}) {
      EXPECT_TRUE(WaitFor(5000, [&] { return fs::exists(file); })) << file;
      EXPECT_EQ(rights(file), of_files) << file;
    }
    for (fs::path folder = fs::path(log).parent_path(); folder != daemon.Folder().Path();
         folder = folder.parent_path()) {
      EXPECT_EQ(rights(folder), of_folders) << folder;
    }
    EXPECT_EQ(rights(fs::path(watchdog).parent_path()), of_folders);
  }
}

TEST(Start, ArgumentsPrintTheUsageAndStartNothing) {
  const DaemonProcess daemon;
  const struct {
    const char* arguments;
    int exit_code;
    const char* text;
  } rows[] = {{"--help", 0, "usage: tamsel_communication\n"},
              {"--version", 0, "20220725_rkq"},
              {"--socket x", 2, "usage: "},
              {"\"\"", 2, "usage: "}};
  for (const auto& row : rows) {
    const ShellResult run =
        RunShell("env TAMSEL_SETTING_FILE=" + daemon.Folder().Path("settings.xml") +
                 " " TAMSEL_BIN_DIR "/tamsel_communication " + row.arguments);
    EXPECT_EQ(run.exit_code, row.exit_code) << row.arguments;
    EXPECT_TRUE(Contains(run.output, row.text)) << run.output;
  }
  ExpectServes(daemon);  // its socket is its own
}

// However many devices are asked and however many clients wait, nobody else lacks a descriptor; and
// devices have all that the others do not need.
TEST(Start, DescriptorsAreSharedOut) {
  const TempFolder run("/dev/shm");
  // The limit, and how many devices have a connection at a time.
  for (const auto& [limit, most] : {std::pair(64, 31), std::pair(96, 59), std::pair(128, 87)}) {
    SCOPED_TRACE(limit);
    const std::string health_path = run.Path("health" + std::to_string(limit));
    const DaemonProcess daemon(
        {{"HealthFilePath", health_path}, {"WatchdogFileUpdateInterval", "1"}},
        {true, "ulimit -Sn 20; ulimit -Hn " + std::to_string(limit)});
    std::vector<RawClient> silent;
    for (int i = 0; i < 80; ++i) {
      silent.emplace_back(daemon.SocketPath());
    }
    const Devices devices[] = {Devices(31), Devices(31), Devices(31)};
    ExpectAnswered(Exchange(daemon, devices[0].Request(1)), 31);
    std::vector<std::future<ResponseReceiveData>> responses;
    for (const int channel : {1, 2, 3}) {
      responses.push_back(std::async(std::launch::async, [&, channel] {
        return Exchange(daemon, devices[channel - 1].Request(channel));
      }));
    }
    int refused = 0;
    for (auto& response : responses) {
      const ReceiveData data = response.get().receive_data;
      EXPECT_EQ(data.status, 0);
      for (const DeviceReceiveData& slot : data.receive_data) {
        refused += slot.status == 4 ? 1 : 0;
      }
    }
    EXPECT_EQ(refused, 93 - most);
    int without_descriptor = 0;
    const HealthReading health = ReadHealth(health_path);
    for (const tamsel_health_device& device : health.snapshot->devices) {
      without_descriptor += static_cast<int>(device.ends[TAMSEL_CAUSE_NO_DESCRIPTOR]);
    }
    EXPECT_EQ(without_descriptor, refused);
    for (int i = 0; i < 80; ++i) {
      silent.emplace_back(daemon.SocketPath());
    }
    EXPECT_LE(daemon.DescriptorCount(), limit);
    ExpectServes(daemon);
    const std::string touched = daemon.Folder().Path("check/tmsc");
    fs::remove(touched);
    EXPECT_TRUE(WaitFor(5000, [&] { return fs::exists(touched); }));
    const std::string console = daemon.Console();
    EXPECT_EQ(CountText(console, "Con err.  [127.0.0.1][-1]"), refused);
    EXPECT_FALSE(Contains(console, "rror] [E]") || Contains(console, " [W] ")) << console;
  }
}

TEST(Start, WithoutStandardStreams) {
  DaemonProcess daemon({{"EnableLogBufferedIO", "0"}}, {true, "exec <&- >&- 2>&-"});
  ExpectAnswered(Exchange(daemon, Devices(5).Request(1)), 5);
  for (const char* const path : {"fd/0", "fd/1", "fd/2"}) {
    EXPECT_EQ(fs::read_symlink(daemon.ProcPath(path)), "/dev/null");
  }
  daemon.Signal(SIGTERM);
  EXPECT_EQ(daemon.WaitForExit(10000), 0);
  EXPECT_TRUE(Contains(ReadFile(daemon.LogPath()), "Kill comp."));
}

TEST(Start, ProgramsThatItStartsInheritNothing) {
  const DaemonProcess daemon;
  const RawClient silent(daemon.SocketPath());
  const Devices devices(3);
  ExpectAnswered(Exchange(daemon, devices.Request(1)), 3);
  for (const auto& entry : fs::directory_iterator(daemon.ProcPath("fd"))) {
    const std::string number = entry.path().filename();
    const std::string info = ReadFile(daemon.ProcPath("fdinfo/" + number));
    // A descriptor may be closed by now.
    EXPECT_TRUE(std::stoi(number) <= 2 || info.empty() ||
                (StatusField(info, "flags", 8) & O_CLOEXEC) != 0)
        << number;
  }
}

TEST(Start, ATouchThatHangsHasFreshSignalsAndHoldsUpNothing) {
  if (!HasNamespaces()) {
    GTEST_SKIP() << "this machine gives unprivileged users no mount namespace of their own";
  }
  // No shell, which would clear the mask that it inherits.
  DaemonProcess daemon(
      {}, {true,
           "printf \"#!/usr/bin/perl\\nopen(S, '/proc/self/status'); open(T, '>$F/touched'); "
           "print T <S>; close T; sleep 100\" > $F/touch && chmod +x $F/touch && "
           "mount --bind $F/touch /usr/bin/touch",
           true});
  const auto touch = [&] { return ReadFile(daemon.Folder().Path("touched")); };
  ASSERT_TRUE(WaitFor(10000, [&] { return Contains(touch(), "SigCgt"); }));
  const long long ignored = 1LL << (SIGPIPE - 1) | 1LL << (SIGXFSZ - 1);
  const std::string own = ReadFile(daemon.ProcPath("status"));
  EXPECT_EQ(StatusField(own, "SigIgn", 16) & ignored, ignored);
  EXPECT_EQ(StatusField(touch(), "SigIgn", 16) & ignored, 0);
  EXPECT_EQ(StatusField(touch(), "SigBlk", 16) & 1LL << (SIGTERM - 1), 0);
  ExpectStops(daemon);
}

}  // namespace
}  // namespace tmsc::test
