#include "utility/descriptor_limit.h"

#include <dirent.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <limits>

namespace tmsc {

namespace {

constexpr int kStandardStreams = 3;
// What can be open at once beside devices and silent clients: signals and stop 3, clients served 3,
// listening and accepting 2, serial ports with an event and a file each 9, log 3, health 2.
constexpr int kServiceDescriptors = kStandardStreams + 22;
constexpr int kLimitPerSilentClient = 8;

// Both are process-wide. The first is written before there are other threads.
int inherited_descriptors = 0;
std::atomic<int> device_descriptors{0};

int DeviceDescriptorsMost() {
  return DescriptorLimit() - kServiceDescriptors - inherited_descriptors -
         static_cast<int>(SilentClients());
}

}  // namespace

int DescriptorLimit() {
  rlimit limit{};
  const rlim_t highest = std::numeric_limits<int>::max();
  return ::getrlimit(RLIMIT_NOFILE, &limit) == 0
             ? static_cast<int>(std::min(limit.rlim_cur, highest))
             : std::numeric_limits<int>::max();
}

int OpenDescriptors() {
  int count = 0;
  if (DIR* directory = ::opendir("/proc/self/fd")) {
    while (const dirent* entry = ::readdir(directory)) {
      count += entry->d_name[0] != '.' ? 1 : 0;
    }
    ::closedir(directory);
    --count;  // the directory's own
  }
  return count;
}

void RaiseDescriptorLimit() {
  inherited_descriptors = std::max(OpenDescriptors() - kStandardStreams, 0);
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

std::size_t SilentClients() {
  const int share = std::max(DescriptorLimit() / kLimitPerSilentClient, 1);
  return std::min(static_cast<std::size_t>(share), kSilentClientsMost);
}

bool DeviceDescriptorShare::Take() {
  const int most = DeviceDescriptorsMost();
  int taken = device_descriptors;
  while (!is_taken_ && taken < most) {
    is_taken_ = device_descriptors.compare_exchange_weak(taken, taken + 1);
  }
  return is_taken_;
}

void DeviceDescriptorShare::Release() {
  device_descriptors -= is_taken_ ? 1 : 0;
  is_taken_ = false;
}

}  // namespace tmsc
