#include "utility/file_rights.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace tmsc {

namespace {
constexpr mode_t kWritingOfOthers = S_IWGRP | S_IWOTH;
mode_t withheld_writing = 0;  // what the first umask would have left of it
}  // namespace

void KeepWritingToOwner() {
  const mode_t first = ::umask(kWritingOfOthers);
  ::umask(first | kWritingOfOthers);
  withheld_writing = kWritingOfOthers & ~first;
}

bool OpenToClients(const std::string& socket_path) {
  struct stat status {};
  // Not through a link that has taken the socket's place.
  return withheld_writing == 0 ||
         (::lstat(socket_path.c_str(), &status) == 0 &&
          ::fchmodat(AT_FDCWD, socket_path.c_str(), (status.st_mode & 07777) | withheld_writing,
                     AT_SYMLINK_NOFOLLOW) == 0);
}

}  // namespace tmsc
