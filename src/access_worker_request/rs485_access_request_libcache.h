#ifndef TAMSEL_ACCESS_WORKER_REQUEST_RS485_ACCESS_REQUEST_LIBCACHE_H_
#define TAMSEL_ACCESS_WORKER_REQUEST_RS485_ACCESS_REQUEST_LIBCACHE_H_

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "access_worker_request/rs485_libcache_data.h"
#include "communication_common.h"

namespace tmsc {

/// Remembers with what parameters the serial library holds each channel's port open, counts the
/// start failures of each channel, and guards the library at the end of the daemon.
///
/// Requests share the cache (Share), so that Destroy never frees it under a running one. Any thread
/// may call any operation. Not the Singleton template, because of the shared ownership.
class Rs485AccessRequestLibcache {
 public:
  enum eLibStatus {
    kStatusClosed = 0,      // the port is not open: open it
    kStatusOpened = 1,      // open with these parameters: use it
    kStatusNeedReopen = 2,  // open with others: close and open it
    kStatusError = 3        // no such channel
  };

  static constexpr int kMaxStartComFailedCloseCount = 10;

  /// Makes the instance when there is none; keeps an existing one.
  static void Create();
  /// The instance; null before Create and after Destroy. For the thread that calls those.
  static Rs485AccessRequestLibcache* GetInstance();
  /// The instance, kept alive by the result; null likewise. Any thread.
  static std::shared_ptr<Rs485AccessRequestLibcache> Share();
  /// Ends the instance: requests that have not touched their port are refused from now on, those
  /// that have are waited for, 2 s at most, and every open port is closed once. A request that is
  /// still running then is refused every further library call.
  static void Destroy();

  Rs485AccessRequestLibcache();
  /// ReleaseChannel().
  virtual ~Rs485AccessRequestLibcache();
  Rs485AccessRequestLibcache(const Rs485AccessRequestLibcache&) = delete;
  Rs485AccessRequestLibcache& operator=(const Rs485AccessRequestLibcache&) = delete;

  /// Whether the port is open as wanted.
  eLibStatus CheckVlmOpen(int channel, bool sniffer, int baudrate);
  /// Remembers an open port. A channel other than 1 to 3 changes nothing.
  void SetVlmOpen(Rs485LibcacheData channel_data);
  /// Remembers that the port is closed; the caller closes it.
  void SetVlmClose(int channel);
  /// Counts one start failure more.
  void SetVlmStartComFailed(int channel);
  /// Starts counting at 0 again.
  void SetVlmStartComFailedClear(int channel);
  /// Whether there were so many start failures in a row that the port is to be closed.
  bool CheckVlmRs485Close(int channel);
  /// Closes every open port in the library and forgets all ports.
  void ReleaseChannel();

  /// Held by a request from before it touches the port until it has its answers: the channel of the
  /// payload may differ from the one whose worker runs the request. Holds nothing for a channel
  /// other than 1 to 3.
  std::unique_lock<std::mutex> LockPort(int channel);

  /// Announces that a request is about to touch its port; false when the daemon is ending. Each
  /// success is followed by one EndUse.
  bool BeginUse();
  void EndUse();

  /// Calls the serial library for a channel, 1 to 3; gives `refused` in place of the call once the
  /// ports have been closed for good.
  template <typename Call>
  auto CallLibrary(int channel, decltype(std::declval<Call>()()) refused, Call call) {
    const std::lock_guard<std::mutex> lock(call_mutexes_[channel - 1]);
    return is_released_ ? refused : call();
  }
  /// Like CallLibrary, for a call that takes long: the ports may be closed while it runs.
  template <typename Call>
  auto CallLibraryLong(int channel, decltype(std::declval<Call>()()) refused, Call call) {
    return CallLibrary(channel, false, [] { return true; }) ? call() : refused;
  }
  bool IsReleased() const { return is_released_; }

 private:
  std::unique_ptr<Rs485LibcacheData>* Slot(int channel);
  int* StartFailures(const std::string& operation, int channel);
  void AwaitUsers();

  std::mutex mutex_;  // guards the members up to the next blank line; not held in a library call
  std::unique_ptr<Rs485LibcacheData> channel1_;
  std::unique_ptr<Rs485LibcacheData> channel2_;
  std::unique_ptr<Rs485LibcacheData> channel3_;
  int vlm_start_com_failed_count_[kMaxChannel] = {};
  int users_ = 0;
  bool is_ending_ = false;
  std::condition_variable users_gone_;

  const int vlm_start_com_failed_count_max_;
  // A short library call of a request holds its channel's mutex, so that none is on its way when
  // the ports are closed for good.
  std::mutex call_mutexes_[kMaxChannel];
  std::mutex port_mutexes_[kMaxChannel];  // taken before all others
  std::atomic<bool> is_released_{false};
};

}  // namespace tmsc

#endif  // TAMSEL_ACCESS_WORKER_REQUEST_RS485_ACCESS_REQUEST_LIBCACHE_H_
