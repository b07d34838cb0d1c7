#include "utility/descriptor_limit.h"

#include <sys/resource.h>

#include <algorithm>
#include <limits>

namespace tmsc {

namespace {

// 64 silent clients, 3 served ones and one being refused, and plenty for the rest.
constexpr int kReservedMost = 128;

}  // namespace

int DescriptorLimit() {
  rlimit limit{};
  const rlim_t highest = std::numeric_limits<int>::max();
  return ::getrlimit(RLIMIT_NOFILE, &limit) == 0
             ? static_cast<int>(std::min(limit.rlim_cur, highest))
             : std::numeric_limits<int>::max();
}

void RaiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

int ReservedDescriptors() {
  return std::min(kReservedMost, DescriptorLimit() / 4 * 3);
}

bool IsReservedDescriptor(int descriptor) {
  return descriptor >= DescriptorLimit() - ReservedDescriptors();
}

}  // namespace tmsc
