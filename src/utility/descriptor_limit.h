#ifndef TAMSEL_UTILITY_DESCRIPTOR_LIMIT_H_
#define TAMSEL_UTILITY_DESCRIPTOR_LIMIT_H_

#include <cstddef>

namespace tmsc {

/// Raises the process's soft limit of descriptors to the hard one. Call first in main, before there
/// are other threads: what is open by then beside the standard descriptors is somebody else's, and
/// counts as gone.
void RaiseDescriptorLimit();

/// The soft limit of descriptors. Any thread.
int DescriptorLimit();

/// How many descriptors the process has open; 0 when the system does not tell. Any thread.
int OpenDescriptors();

constexpr std::size_t kSilentClientsMost = 64;

/// How many clients may wait at a time without having sent anything: 64, or an eighth of a smaller
/// limit, at least one.
std::size_t SilentClients();

/// The one descriptor of a device connection, counted among those of all connections: they leave
/// enough to clients, log, watchdog, health and serial ports that none of them ever lacks one, and
/// take what is left, 31 of a limit of 64. Not for sharing between threads; each thread its own.
class DeviceDescriptorShare {
 public:
  DeviceDescriptorShare() = default;
  ~DeviceDescriptorShare() { Release(); }
  DeviceDescriptorShare(const DeviceDescriptorShare&) = delete;
  DeviceDescriptorShare& operator=(const DeviceDescriptorShare&) = delete;

  /// Call before the descriptor is opened; false when there is none left for devices.
  bool Take();
  /// Call when it is closed; harmless when none was taken.
  void Release();

 private:
  bool is_taken_ = false;
};

}  // namespace tmsc

#endif  // TAMSEL_UTILITY_DESCRIPTOR_LIMIT_H_
