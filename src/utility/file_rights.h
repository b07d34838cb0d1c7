#ifndef TAMSEL_UTILITY_FILE_RIGHTS_H_
#define TAMSEL_UTILITY_FILE_RIGHTS_H_

#include <string>

namespace tmsc {

/// From now on nobody but their owner may write the files and folders that this process and its
/// children make; what else others may do, the umask that the process was started with says. Once,
/// before other threads exist.
void KeepWritingToOwner();

/// Gives a socket that has just been bound the rights that the first umask leaves it: to connect is
/// to write. False, and errno, when they cannot be set.
bool OpenToClients(const std::string& socket_path);

}  // namespace tmsc

#endif  // TAMSEL_UTILITY_FILE_RIGHTS_H_
