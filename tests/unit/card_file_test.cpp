#include "log/card_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <map>
#include <tuple>

#include "support/files.h"
#include "support/wait.h"
#include "utility/descriptor.h"

// In place of the C library's, for the whole test program. What is outside the tests' own folders
// is not counted: how many folders stand above them is the machine's affair.
std::atomic<int> fsync_count{0}, fsync_error{0}, syncfs_error{0};
std::atomic<bool> is_fsync_held{false};
std::map<std::string, std::uintmax_t> files_on_card;  // at the last syncfs that an fsync followed
std::map<std::string, std::uintmax_t> files_in_cache;
extern "C" int fsync(int descriptor) {
  namespace fs = std::filesystem;
  const auto path = fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor)).string();
  fsync_count += path.find("tamsel-test-") == std::string::npos ? 0 : 1;
  files_on_card = files_in_cache;
  tmsc::test::WaitFor(10000, [] { return !is_fsync_held; });
  errno = fsync_error;
  return errno == 0 ? 0 : -1;
}
extern "C" int syncfs(int descriptor) noexcept {
  errno = syncfs_error;
  if (errno != 0) {
    return -1;
  }
  namespace fs = std::filesystem;
  files_in_cache.clear();
  for (const auto& file : fs::directory_iterator("/proc/self/fd/" + std::to_string(descriptor))) {
    files_in_cache[file.path().filename()] = file.is_regular_file() ? file.file_size() : 0;
  }
  return 0;
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
                                                      {"link", false, false},
                                                      {"hard link", true, false},
                                                      {"pipe", false, false}};
  for (const auto& [name, own, shared] : rows) {
    const CardFile mine(path(name)), common(path(name), CardFile::Folder::kShared);
    EXPECT_EQ(mine.Append("x") == CardFile::Outcome::kWritten, own) << name;
    EXPECT_EQ(common.Append("y") == CardFile::Outcome::kWritten, shared) << name;
  }
  EXPECT_EQ(ReadFile(path("file")), "xy");
}

TEST(CardFile, SynchronisesTheFileAndItsFolders) {
  const TempFolder folder;
  std::filesystem::create_directory(folder.Path("log"));
  const CardFile file(folder.Path("log/file"));
  EXPECT_TRUE(file.Synchronise()) << "a file that is gone has nothing to bring to the card";
  EXPECT_EQ(fsync_count.exchange(0), 2) << "its folders";
  file.Append("x");
  for (const int error : {EINVAL, 0}) {
    fsync_error = error;
    EXPECT_TRUE(file.Synchronise() && file.SynchroniseCard()) << error;
    EXPECT_EQ(fsync_count.exchange(0), 4);
  }
  for (auto* const step : {&fsync_error, &syncfs_error}) {
    *step = EIO;
    EXPECT_EQ(file.Synchronise(), step != &fsync_error);
    EXPECT_FALSE(file.SynchroniseCard());
    *step = 0;
  }
  EXPECT_FALSE(CardFile(folder.Path(std::string(300, 'n'))).Synchronise()) << "not to be opened";
}

}  // namespace tmsc::test
