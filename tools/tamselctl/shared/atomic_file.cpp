#include "shared/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "utility/descriptor.h"

namespace tmsc::ctl {
namespace {

/// 0 or errno.
int WriteNewFile(const std::string& path, const std::string& text) {
  // Not mkstemp, which would keep everybody else from reading the file.
  const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  if (!file.IsOpen()) {
    return errno;
  }
  for (std::size_t written = 0; written < text.size();) {
    const ssize_t count = ::write(file.Get(), text.data() + written, text.size() - written);
    if (count < 0 && errno != EINTR) {
      return errno;
    }
    written += count > 0 ? static_cast<std::size_t>(count) : 0;
  }
  return ::fsync(file.Get()) == 0 ? 0 : errno;
}

}  // namespace

std::string WriteAtomically(const std::string& path, const std::string& text) {
  const std::size_t name = path.rfind('/') + 1;  // 0 without a folder, too
  const std::string temporary =
      path.substr(0, name) + "." + path.substr(name) + "." + std::to_string(::getpid()) + ".tmp";
  struct stat state {};
  if (::stat(path.c_str(), &state) == 0 && !S_ISREG(state.st_mode)) {
    return path + " cannot be written: it is no regular file";
  }
  // A process of the same number may have been killed before.
  ::unlink(temporary.c_str());
  int error = WriteNewFile(temporary, text);
  if (error == 0 && std::rename(temporary.c_str(), path.c_str()) != 0) {
    error = errno;
  }
  if (error == 0) {
    return {};
  }
  ::unlink(temporary.c_str());
  return path + " cannot be written: " + std::generic_category().message(error);
}

}  // namespace tmsc::ctl
