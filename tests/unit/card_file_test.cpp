#include "log/card_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <utility>

#include "support/files.h"
#include "utility/descriptor.h"

// In place of the C library's, for the whole test program.
std::atomic<int> fsync_count{0};
std::atomic<int> fsync_error{0};
extern "C" int fsync(int /*descriptor*/) {
  ++fsync_count;
  errno = fsync_error;
  return errno == 0 ? 0 : -1;
}

namespace tmsc::test {
namespace {

TEST(CardFile, WhatStandsInItsPlaceDecides) {
  using Outcome = CardFile::Outcome;
  const TempFolder folder;
  const auto path = [&](const char* name) { return folder.Path(name); };
  WriteFile(path("file"), "old ");
  WriteFile(path("linked"), "old ");
  std::filesystem::create_hard_link(path("linked"), path("hard link"));
  std::filesystem::create_symlink(path("file"), path("link"));
  ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
  const Descriptor reader(::open(path("pipe").c_str(), O_RDWR | O_CLOEXEC));
  const struct {
    const char* name;
    Outcome own, shared;  // in a folder of its own, and in one where anybody puts files
  } rows[] = {{"new", Outcome::kWritten, Outcome::kWritten},
              {"file", Outcome::kWritten, Outcome::kWritten},
              {"link", Outcome::kWritten, Outcome::kNotOpened},
              {"hard link", Outcome::kWritten, Outcome::kNotOpened},
              {"pipe", Outcome::kNotOpened, Outcome::kNotOpened},
              {"missing/file", Outcome::kNotOpened, Outcome::kNotOpened}};
  for (const auto& row : rows) {
    EXPECT_EQ(CardFile(path(row.name)).Append("x"), row.own) << row.name;
    EXPECT_EQ(CardFile(path(row.name), CardFile::Folder::kShared).Append("y"), row.shared);
  }
  EXPECT_EQ(ReadFile(path("new")) + " " + ReadFile(path("file")) + " " + ReadFile(path("linked")),
            "xy old xyx old x");
}

TEST(CardFile, SynchronisesTheFileAndItsFolder) {
  const TempFolder folder;
  const CardFile file(folder.Path("file"));
  EXPECT_TRUE(file.Synchronise()) << "a file that is gone has nothing to bring to the card";
  EXPECT_EQ(fsync_count.exchange(0), 1) << "its folder";
  file.Append("x");
  for (const auto& [error, is_on_card] : {std::pair(0, true), {EINVAL, true}, {EIO, false}}) {
    fsync_error = error;
    EXPECT_EQ(file.Synchronise(), is_on_card) << error;
    EXPECT_EQ(fsync_count.exchange(0), 2);
  }
  fsync_error = 0;
  EXPECT_FALSE(CardFile(folder.Path(std::string(300, 'n'))).Synchronise()) << "not to be opened";
}

}  // namespace
}  // namespace tmsc::test
