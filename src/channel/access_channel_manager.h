#ifndef TAMSEL_CHANNEL_ACCESS_CHANNEL_MANAGER_H_
#define TAMSEL_CHANNEL_ACCESS_CHANNEL_MANAGER_H_

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "channel/access_channel_rs485.h"
#include "channel/access_channel_tcpip.h"
#include "utility/singleton.h"

namespace tmsc {

/// Holds the front of each channel and transport, and the busy flag of each channel. Any thread may
/// call it; no lock of it is held during an exchange. What the log says of the flags stands there
/// in the order in which they changed.
///
/// Channel indexes are not checked here: the request server lets only 1 to 3 pass.
class AccessChannelManager : public Singleton<AccessChannelManager> {
 public:
  AccessChannelManager();
  /// Waits for requests in progress on the fronts.
  virtual ~AccessChannelManager();

  /// The front for a channel; made, with its worker thread, on first use.
  std::shared_ptr<tmsc::AccessChannelRS485> AccessChannelRS485(int channel_index);
  std::shared_ptr<tmsc::AccessChannelTCPIP> AccessChannelTCPIP(int channel_index);

  /// The busy flag of a channel, shared by both transports; false until first set. To clear a flag
  /// needs no memory.
  void SetUsedState(int channel_index, bool use);
  /// Waits for a hand-back in progress.
  bool GetUsedState(int channel_index);

  /// Held by a request from the step that lets its client go until it has cleared the busy flag:
  /// nobody looks at the flag in between, so a client that has its response and asks again at once
  /// does not find the channel still busy with its own last request. The holder waits for nothing
  /// and does not ask for the flag. Holds nothing for a channel that no client can name.
  std::unique_lock<std::mutex> LockHandBack(int channel_index);

 private:
  // One for each channel, taken before mutex_.
  std::mutex hand_back_mutexes_[kMaxChannel];
  // All guarded by mutex_ in the source file; the key is the channel index as decimal text.
  std::unique_ptr<std::map<std::string, std::shared_ptr<tmsc::AccessChannelRS485>>>
      access_channel_rs485_map_;
  std::unique_ptr<std::map<std::string, std::shared_ptr<tmsc::AccessChannelTCPIP>>>
      access_channel_tcpip_map_;
  std::map<std::string, bool> access_channel_used_map_;
};

}  // namespace tmsc

#endif  // TAMSEL_CHANNEL_ACCESS_CHANNEL_MANAGER_H_
