#ifndef TAMSEL_UTILITY_MEMORY_FILE_SYSTEM_H_
#define TAMSEL_UTILITY_MEMORY_FILE_SYSTEM_H_

#include <string>

namespace tmsc {

/// Whether an open file, or the one at a path, is kept in memory only (tmpfs, ramfs), so that a
/// write waits for no device; false when the system does not tell.
bool IsOnMemoryFileSystem(int descriptor);
bool IsOnMemoryFileSystem(const std::string& path);

}  // namespace tmsc

#endif  // TAMSEL_UTILITY_MEMORY_FILE_SYSTEM_H_
