#ifndef TAMSELCTL_SHARED_REGULAR_FILE_H_
#define TAMSELCTL_SHARED_REGULAR_FILE_H_

#include <cstdint>
#include <string>

#include "utility/descriptor.h"

namespace tmsc::ctl {

/// A regular file that is open to be read, or what keeps it from being read.
struct RegularFile {
  Descriptor descriptor;
  std::uintmax_t size = 0;  // bytes
  std::string obstacle;     // "is no regular file", "cannot be read: ..."; empty: it is open
};

/// Waits for nothing, as the open of a FIFO would.
RegularFile OpenRegularFile(const std::string& path);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_REGULAR_FILE_H_
