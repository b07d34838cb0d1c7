#include "daemon_client.h"

namespace tmsc::test {
namespace {

TEST(Card, ReadOnlyForAWhileThenGone) {
  if (!HasNamespaces()) {
    GTEST_SKIP() << "this machine gives unprivileged users no mount namespace of their own";
  }
  // The card is a small file system that nobody else sees. Nor does anybody see the daemon's /tmp,
  // where the error file goes; the test's own folder and all that was built stay where they are.
  const DaemonProcess daemon(
      {{"EnableLogBufferedIO", "0"}},
      {true,
       "mkdir $F/card && mount -t tmpfs -o size=128k none $F/card && "
       "for kept in $F " TAMSEL_BIN_DIR "/../..; do mkdir -p $F/tmp$kept && "
       "mount --rbind $kept $F/tmp$kept || exit; done && mount --rbind $F/tmp/tmp /tmp",
       true});
  const std::string root = daemon.ProcPath("root");
  const auto error_lines = [&] {
    return CountText(ReadFile(root + "/tmp/logger_io_file_error"), daemon.LogPath() + "\n");
  };
  const auto remount = [&](const std::string& options) {
    return RunShell("nsenter -t " + std::to_string(daemon.Pid()) +
                    " -U -m --preserve-credentials mount -o remount,size=128k," + options +
                    " none " + daemon.Folder().Path("card"));
  };
  const std::string log = root + daemon.LogPath();
  ASSERT_TRUE(WaitFor(5000, [&] { return std::filesystem::exists(log); }));
  ASSERT_EQ(remount("ro").exit_code, 0);
  ExpectServes(daemon);
  EXPECT_TRUE(WaitFor(5000, [&] { return error_lines() == 1; }));
  ExpectServes(daemon);
  SleepMs(1100);
  EXPECT_EQ(error_lines(), 1);
  ASSERT_EQ(remount("rw").exit_code, 0);
  RawClient(daemon.SocketPath(), MakeTcpIpRequest(101)).Read(2000);
  EXPECT_TRUE(WaitFor(5000, [&] { return Contains(ReadFile(log), "ch[101]"); }));

  const std::string folder = root + daemon.Folder().Path("card") + "/velmorahome";
  std::filesystem::rename(folder, folder + ".away");
  WriteFile(folder, "");
  RawClient(daemon.SocketPath(), MakeTcpIpRequest(102)).Read(2000);
  EXPECT_TRUE(daemon.WaitForConsole(
      "Card is gone, log lines are kept [" + daemon.LogPath() + "] Create directory fail.", 5000));
  SleepMs(1700);
  EXPECT_EQ(CountText(daemon.Console(), "FlUtil"), 0) << "a line for each attempt";
}

}  // namespace
}  // namespace tmsc::test
