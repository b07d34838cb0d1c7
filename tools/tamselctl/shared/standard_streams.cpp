#include "shared/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

namespace tmsc::ctl {

void OccupyStandardStreams() {
  int descriptor = 0;
  do {
    // For reading only: an output that was closed must not become one that takes everything.
    descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor >= 0) {
    ::close(descriptor);
  }
}

}  // namespace tmsc::ctl
