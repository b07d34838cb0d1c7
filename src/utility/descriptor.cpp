#include "utility/descriptor.h"

#include <unistd.h>

namespace tmsc {

void Descriptor::Reset(int descriptor) {
  const int old = std::exchange(descriptor_, descriptor);
  if (old >= 0) {
    ::close(old);
  }
}

}  // namespace tmsc
