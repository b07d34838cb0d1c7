#ifndef TAMSEL_FIELD_SIMULATOR_SYSTEM_ERROR_H_
#define TAMSEL_FIELD_SIMULATOR_SYSTEM_ERROR_H_

#include <cerrno>
#include <string>
#include <system_error>

namespace tmsc::simulator {

/// What to throw when a system call has failed: errno with a text in front.
inline std::system_error SystemError(const std::string& what) {
  return std::system_error(errno, std::generic_category(), what);
}

}  // namespace tmsc::simulator

#endif  // TAMSEL_FIELD_SIMULATOR_SYSTEM_ERROR_H_
