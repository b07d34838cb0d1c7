#include "log/card_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <utility>

#include "utility/descriptor.h"
#include "utility/file_util.h"

namespace tmsc {

namespace {

// No wait, also when somebody puts a pipe there, and no file elsewhere that a link leads to.
constexpr int kFlags = O_WRONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW;

bool WriteAll(const Descriptor& file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(file.Get(), text.data(), text.size());
    if (written > 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (written == 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

/// Nothing under that name, or no folder any more: there is nothing to bring to the card.
bool IsOnCard(const std::string& path, int flags, int (*before)(int) = nullptr) {
  const Descriptor file(::open(path.c_str(), flags | O_CLOEXEC));
  if (!file.IsOpen()) {
    return errno == ENOENT || errno == ENOTDIR;
  }
  const bool is_done = before == nullptr || before(file.Get()) == 0;
  return (::fsync(file.Get()) == 0 || errno == EINVAL) && is_done;
}

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY;

/// With the folders above, as far as the card goes: on FAT a folder that was made can be found
/// again only once the one that it stands in is on the card.
bool AreFoldersOnCard(const std::string& folder) {
  if (!IsOnCard(folder, kFolderFlags)) {
    return false;
  }
  const std::string above = FileUtil::GetDirectory(folder);
  struct stat status {};
  struct stat status_above {};
  const bool is_same_card = above.size() < folder.size() && ::access(above.c_str(), R_OK) == 0 &&
                            ::stat(folder.c_str(), &status) == 0 &&
                            ::stat(above.c_str(), &status_above) == 0 &&
                            status.st_dev == status_above.st_dev;
  return !is_same_card || AreFoldersOnCard(above);
}

}  // namespace

CardFile::CardFile(std::string path, Folder folder) : path_(std::move(path)), folder_(folder) {}

CardFile::Outcome CardFile::Append(const std::string& text) const {
  const int flags = kFlags | O_CLOEXEC | O_APPEND | O_CREAT;
  const Descriptor file(::open(path_.c_str(), flags, 0666));
  struct stat status {};
  if (!file.IsOpen() || ::fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      (folder_ == Folder::kShared && status.st_nlink > 1)) {
    return Outcome::kNotOpened;
  }
  return WriteAll(file, text) ? Outcome::kWritten : Outcome::kNotWritten;
}

bool CardFile::Synchronise() const {
  const bool is_file_on_card = IsOnCard(path_, kFlags);
  return AreFoldersOnCard(FileUtil::GetDirectory(path_)) && is_file_on_card;
}

bool CardFile::SynchroniseCard() const {
  // The folder comes last: on FAT only fsync empties the card's own cache. No renamed file is
  // synchronised by itself before: that would write its neighbours' entries without their lengths.
  return IsOnCard(FileUtil::GetDirectory(path_), kFolderFlags, ::syncfs);
}

}  // namespace tmsc
