#include "log/card_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <tuple>

#include "support/files.h"
#include "support/wait.h"
#include "utility/descriptor.h"

// In place of the C library's, for the whole test program.
std::atomic<int> fsync_count{0}, fsync_error{0};
std::atomic<bool> is_fsync_held{false};
extern "C" int fsync(int /*descriptor*/) {
  ++fsync_count;
  tmsc::test::WaitFor(10000, [] { return !is_fsync_held; });
  errno = fsync_error;
  return errno == 0 ? 0 : -1;
}

namespace tmsc::test {

TEST(CardFile, WhatStandsInItsPlaceDecides) {
  const TempFolder folder;
  const auto path = [&](const char* name) { return folder.Path(name); };
  WriteFile(path("linked"), "");
  std::filesystem::create_hard_link(path("linked"), path("hard link"));
  std::filesystem::create_symlink(path("file"), path("link"));
  ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
  const Descriptor reader(::open(path("pipe").c_str(), O_RDWR | O_CLOEXEC));
  // Whether it is taken in a folder of its own, and in one where anybody puts files.
  const std::tuple<const char*, bool, bool> rows[] = {{"file", true, true},
                                                      {"link", true, false},
                                                      {"hard link", true, false},
                                                      {"pipe", false, false}};
  for (const auto& [name, own, shared] : rows) {
    const CardFile mine(path(name)), common(path(name), CardFile::Folder::kShared);
    EXPECT_EQ(mine.Append("x") == CardFile::Outcome::kWritten, own) << name;
    EXPECT_EQ(common.Append("y") == CardFile::Outcome::kWritten, shared) << name;
  }
  EXPECT_EQ(ReadFile(path("file")), "xyx");
}

TEST(CardFile, SynchronisesTheFileAndItsFolder) {
  const TempFolder folder;
  const CardFile file(folder.Path("file"));
  EXPECT_TRUE(file.Synchronise()) << "a file that is gone has nothing to bring to the card";
  EXPECT_EQ(fsync_count.exchange(0), 1) << "its folder";
  file.Append("x");
  for (const int error : {EINVAL, EIO, 0}) {
    fsync_error = error;
    EXPECT_EQ(file.Synchronise(), error != EIO) << error;
    EXPECT_EQ(fsync_count.exchange(0), 2);
  }
  EXPECT_FALSE(CardFile(folder.Path(std::string(300, 'n'))).Synchronise()) << "not to be opened";
}

}  // namespace tmsc::test
