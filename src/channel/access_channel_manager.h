#ifndef TAMSEL_CHANNEL_ACCESS_CHANNEL_MANAGER_H_
#define TAMSEL_CHANNEL_ACCESS_CHANNEL_MANAGER_H_

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "channel/access_channel_rs485.h"
#include "channel/access_channel_tcpip.h"
#include "utility/singleton.h"

namespace tmsc {

/// Holds the front of each channel and transport, and the busy flag of each channel. Any thread may
/// call it; no lock of it is held during an exchange, or while it logs.
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

  /// The busy flag of a channel, shared by both transports; false until first set. GetUsedState
  /// waits for a hand-back in progress. To clear a flag needs no memory.
  void SetUsedState(int channel_index, bool use);
  bool GetUsedState(int channel_index);

  /// Takes the last step of a request, which lets its client go, and clears the busy flag, both
  /// before anybody sees the flag again: a client that has its response and asks again at once does
  /// not find the channel still busy with its own last request. `last_step` does not wait, log or
  /// throw.
  void HandBack(int channel_index, const std::function<void()>& last_step);

 private:
  void ChangeUsedState(int channel_index, bool use, const std::function<void()>& last_step);
  std::unique_lock<std::mutex> LockHandBack(int channel_index);

  // One for each channel, held for a hand-back and for a look at the busy flag; taken before
  // mutex_.
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
