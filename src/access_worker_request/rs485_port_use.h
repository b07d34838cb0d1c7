#ifndef TAMSEL_ACCESS_WORKER_REQUEST_RS485_PORT_USE_H_
#define TAMSEL_ACCESS_WORKER_REQUEST_RS485_PORT_USE_H_

#include <memory>
#include <mutex>

#include "access_worker_request/rs485_access_request_libcache.h"
#include "communication_common.h"
#include "vlm_rs485.h"

namespace tmsc {

/// "This request uses this port": the one way to the serial library. It is alone on the port, also
/// when two requests name one port in payloads of different channels, and the end of the daemon
/// waits for it. One thread.
///
/// The calls are those of vlm_rs485.h for the port's channel. Once the cache has closed the ports
/// for good each gives the library's own value for a refusal and calls nothing.
class Rs485PortUse {
 public:
  /// Waits until the port is free; begins no use when the daemon is ending or the channel is not 1
  /// to 3. `cache` may be null: the daemon has ended.
  Rs485PortUse(std::shared_ptr<Rs485AccessRequestLibcache> cache, int channel);
  ~Rs485PortUse();
  Rs485PortUse(const Rs485PortUse&) = delete;
  Rs485PortUse& operator=(const Rs485PortUse&) = delete;

  /// Whether the port may be touched.
  bool IsBegun() const { return is_begun_; }
  /// Whether the ports have been closed for good meanwhile. A use that has begun.
  bool IsReleased() const;
  Rs485AccessRequestLibcache& Cache() { return *cache_; }

  /// errno as the library left it in the last Open or StartCom; 0: it left none, as a board's own
  /// does. Means something when the call failed.
  int LibraryError() const { return library_error_; }

  int Open(bool sniffer, byte baud_rate);
  /// Closes the port, and tells the cache first.
  void Close();
  int SetPortParameters(const SetPortParams& params);
  int AddEventListener(void (*listener)());
  int RemoveEventListener();
  byte PutOutputStream(byte address, xfer_data& data);
  byte SetComFlags(unsigned int flags);
  /// The one call that takes long: the ports may be closed while it runs.
  byte StartCom();
  receive_data_full* GetReceiveStream();

 private:
  using Stage = Rs485AccessRequestLibcache::Stage;

  template <typename Result, typename Call>
  Result CallLibrary(Result refused, Call call);
  template <typename Call>
  auto NoteError(Call call);

  const std::shared_ptr<Rs485AccessRequestLibcache> cache_;
  const int channel_;
  std::unique_lock<std::mutex> port_lock_;
  bool is_begun_ = false;
  int library_error_ = 0;
};

}  // namespace tmsc

#endif  // TAMSEL_ACCESS_WORKER_REQUEST_RS485_PORT_USE_H_
