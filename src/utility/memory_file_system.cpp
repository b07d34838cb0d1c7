#include "utility/memory_file_system.h"

#include <linux/magic.h>
#include <sys/vfs.h>

#include <cstdint>

namespace tmsc {

namespace {

bool IsInMemory(const struct statfs& system) {
  const auto type = static_cast<std::uint32_t>(system.f_type);  // where it has 32 bits, with a sign
  return type == TMPFS_MAGIC || type == RAMFS_MAGIC;
}

}  // namespace

bool IsOnMemoryFileSystem(int descriptor) {
  struct statfs system {};
  return ::fstatfs(descriptor, &system) == 0 && IsInMemory(system);
}

bool IsOnMemoryFileSystem(const std::string& path) {
  struct statfs system {};
  return ::statfs(path.c_str(), &system) == 0 && IsInMemory(system);
}

}  // namespace tmsc
