#ifndef TAMSEL_CHANNEL_ACCESS_CHANNEL_RS485_H_
#define TAMSEL_CHANNEL_ACCESS_CHANNEL_RS485_H_

#include <memory>

#include "communication_common.h"
#include "communication_result.h"
#include "worker_thread/channel.h"

namespace tmsc {

/// The front of one channel for the RS485 transport, with one worker: requests are performed one
/// after the other.
class AccessChannelRS485 {
 public:
  explicit AccessChannelRS485(int channel_index);
  /// Waits for the request in progress.
  virtual ~AccessChannelRS485();
  AccessChannelRS485(const AccessChannelRS485&) = delete;
  AccessChannelRS485& operator=(const AccessChannelRS485&) = delete;

  /// Performs one request and returns its result; blocks until then. Header and payload stay the
  /// caller's own. Any thread.
  std::shared_ptr<CommunicationResult> RS485Access(DataHeader* header,
                                                   DeviceAccessRS485* device_access_rs485);

 private:
  int channel_index_;
  std::unique_ptr<Channel> worker_channel_;
};

}  // namespace tmsc

#endif  // TAMSEL_CHANNEL_ACCESS_CHANNEL_RS485_H_
