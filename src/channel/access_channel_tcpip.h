#ifndef TAMSEL_CHANNEL_ACCESS_CHANNEL_TCPIP_H_
#define TAMSEL_CHANNEL_ACCESS_CHANNEL_TCPIP_H_

#include <memory>

#include "communication_common.h"
#include "communication_result.h"
#include "worker_thread/channel.h"

namespace tmsc {

/// The front of one channel for the TCPIP transport, with one worker: requests are performed one
/// after the other.
class AccessChannelTCPIP {
 public:
  explicit AccessChannelTCPIP(int channel_index);
  /// Waits for the request in progress.
  virtual ~AccessChannelTCPIP();
  AccessChannelTCPIP(const AccessChannelTCPIP&) = delete;
  AccessChannelTCPIP& operator=(const AccessChannelTCPIP&) = delete;

  /// Performs one request and returns its result; blocks until then. Header and payload stay the
  /// caller's own. Any thread.
  std::shared_ptr<CommunicationResult> TCPAccess(DataHeader* header,
                                                 DeviceAccessTCPIP* device_access_tcpip);

 private:
  int channel_index_;
  std::unique_ptr<Channel> worker_channel_;
};

}  // namespace tmsc

#endif  // TAMSEL_CHANNEL_ACCESS_CHANNEL_TCPIP_H_
