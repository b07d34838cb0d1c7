#include "shared/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>

namespace tmsc::ctl {

RegularFile OpenRegularFile(const std::string& path) {
  RegularFile file;
  file.descriptor.Reset(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status {};
  if (!file.descriptor.IsOpen() || ::fstat(file.descriptor.Get(), &status) != 0) {
    file.obstacle = "cannot be read: " + std::generic_category().message(errno);
  } else if (!S_ISREG(status.st_mode)) {
    file.obstacle = "is no regular file";
  } else {
    file.size = static_cast<std::uintmax_t>(status.st_size);
  }
  return file;
}

}  // namespace tmsc::ctl
