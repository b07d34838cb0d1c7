#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>

#include "daemon_client.h"
#include "support/shell.h"

namespace tmsc::test {
namespace {

namespace fs = std::filesystem;

const char* const kErrorFile = "/tmp/logger_io_file_error";

/// Lines of the shared error file that name this daemon's log.
int ErrorLines(const DaemonProcess& daemon) {
  return CountText(ReadFile(kErrorFile), " UTC] " + daemon.LogPath() + "\n");
}

/// Leaves a line with the number in the log: a request for a channel that does not exist.
void LeaveMark(const DaemonProcess& daemon, int number) {
  RawClient(daemon.SocketPath(), MakeTcpIpRequest(number)).Read(2000);
}

std::string Mark(int number) {
  return "ch[" + std::to_string(number) + "]";
}

/// The error file is shared by all: one that belongs to another user takes nothing.
bool IsErrorFileTaken() {
  return fs::exists(kErrorFile) && ::access(kErrorFile, W_OK) != 0;
}

const Settings kUnbuffered = {{"EnableLogBufferedIO", "0"}};

TEST(Card, FolderGoneAndBackTwice) {
  if (IsErrorFileTaken()) {
    GTEST_SKIP() << kErrorFile << " belongs to another user";
  }
  const DaemonProcess daemon(kUnbuffered);
  const std::string parent = daemon.CardPath() + "/velmorahome";
  ASSERT_TRUE(WaitFor(3000, [&] { return fs::exists(daemon.LogPath()); })) << "not created";
  for (int episode = 1; episode <= 2; ++episode) {
    SCOPED_TRACE(episode);
    fs::rename(parent, parent + ".away");
    std::ofstream(parent) << "no folder";
    LeaveMark(daemon, 100 * episode);
    EXPECT_TRUE(WaitFor(3000, [&] { return ErrorLines(daemon) == episode; }));
    for (int i = 1; i <= 3; ++i) {
      LeaveMark(daemon, 100 * episode + i);
      SleepMs(300);
    }
    EXPECT_EQ(ErrorLines(daemon), episode) << "one line for each episode";
    fs::remove(parent);
    fs::rename(parent + ".away", parent);
    EXPECT_TRUE(WaitFor(3000, [&] {
      const std::string log = ReadFile(daemon.LogPath());
      return log.find(Mark(100 * episode)) != std::string::npos &&
             log.find(Mark(100 * episode + 3)) != std::string::npos;
    })) << "lines of the time without a card are kept";
  }
}

/// A daemon whose card is a small file system of its own, mounted where nobody else sees it.
class MountedCard : public ::testing::Test {
 protected:
  void SetUp() override {
    if (RunShell("unshare -rm mount -t tmpfs none /mnt").exit_code != 0) {
      GTEST_SKIP() << "this machine gives unprivileged users no mount namespace of their own";
    }
    if (IsErrorFileTaken()) {
      GTEST_SKIP() << kErrorFile << " belongs to another user";
    }
    daemon_.emplace(kUnbuffered,
                    DaemonOptions{true, true, "mount -t tmpfs -o size=128k none \"$CARD\""});
    card_ = daemon_->ProcPath("root") + daemon_->CardPath();
    log_ = daemon_->ProcPath("root") + daemon_->LogPath();
    ASSERT_TRUE(WaitFor(3000, [&] { return fs::exists(log_); }));
  }

  void ExpectGoesOn(int mark) {
    LeaveMark(*daemon_, mark);
    EXPECT_TRUE(WaitFor(3000, [&] { return ReadFile(log_).find(Mark(mark)) != std::string::npos; }))
        << "the log does not go on";
  }

  std::optional<DaemonProcess> daemon_;
  std::string card_;
  std::string log_;
};

TEST_F(MountedCard, FullAndEmptiedAgain) {
  std::ofstream(card_ + "/filler") << std::string(256 * 1024, 'x');
  // The page that is begun still takes some lines.
  EXPECT_TRUE(WaitFor(5000, [&] {
    LeaveMark(*daemon_, 100);
    return ErrorLines(*daemon_) == 1;
  }));
  EXPECT_EQ(Exchange(*daemon_, MakeTcpIpRequest(1)).receive_data.status, 0);
  EXPECT_TRUE(daemon_->WaitForConsole("log_file error " + daemon_->LogPath(), 1000));
  SleepMs(1100);
  EXPECT_EQ(ErrorLines(*daemon_), 1);
  fs::remove(card_ + "/filler");
  ExpectGoesOn(101);
}

TEST_F(MountedCard, ReadOnlyAndWritableAgain) {
  const std::string remount = "nsenter -t " + std::to_string(daemon_->Pid()) +
                              " -U -m --preserve-credentials mount -o remount,size=128k,";
  ASSERT_EQ(RunShell(remount + "ro none " + daemon_->CardPath()).exit_code, 0);
  LeaveMark(*daemon_, 100);
  EXPECT_TRUE(WaitFor(3000, [&] { return ErrorLines(*daemon_) == 1; }));
  EXPECT_EQ(Exchange(*daemon_, MakeTcpIpRequest(1)).receive_data.status, 0);
  SleepMs(1100);
  EXPECT_EQ(ErrorLines(*daemon_), 1);
  ASSERT_EQ(RunShell(remount + "rw none " + daemon_->CardPath()).exit_code, 0);
  ExpectGoesOn(101);
}

}  // namespace
}  // namespace tmsc::test
