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

/// Start failures in a row that close the port, when there is no settings manager to ask.
constexpr int kMaxStartComFailedCloseCount = 10;

/// Remembers with what parameters the serial library holds each channel's port open, counts the
/// start failures of each channel, and ends the use of the ports with the daemon.
///
/// Requests share the cache (Share) and use a port through an Rs485PortUse, so that Destroy never
/// frees it under a running one. Any thread may call any operation. Not the Singleton template,
/// because of the shared ownership.
class Rs485AccessRequestLibcache {
 public:
  enum eLibStatus {
    kStatusClosed = 0,      // the port is not open: open it
    kStatusOpened = 1,      // open with these parameters: use it
    kStatusNeedReopen = 2,  // open with others: close and open it
    kStatusError = 3        // no such channel
  };

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
  /// Whether the port has been open at any time; any channel number.
  bool WasOpened(int channel);
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

 private:
  friend class Rs485PortUse;

  /// How far the end has come.
  enum class Stage {
    kServing,
    kEnding,    // no further request touches a port
    kReleased,  // no library call is made any more
  };

  std::unique_ptr<Rs485LibcacheData>* Slot(int channel);
  int ChangeStartFailures(const char* operation, int channel, int (*change)(int count));
  void AwaitUsers();

  std::mutex mutex_;  // guards the members up to the next blank line; not held in a library call
  std::unique_ptr<Rs485LibcacheData> channel1_;
  std::unique_ptr<Rs485LibcacheData> channel2_;
  std::unique_ptr<Rs485LibcacheData> channel3_;
  int vlm_start_com_failed_count_[kMaxChannel] = {};
  int users_ = 0;
  std::condition_variable users_gone_;

  const int vlm_start_com_failed_count_max_;
  // Written under mutex_; read under it to begin a use, under the call mutex before each call.
  std::atomic<Stage> stage_{Stage::kServing};
  // A short library call of a request holds its channel's mutex, so that none is on its way when
  // the ports are closed for good.
  std::mutex call_mutexes_[kMaxChannel];
  std::mutex port_mutexes_[kMaxChannel];  // taken before all others
};

}  // namespace tmsc

#endif  // TAMSEL_ACCESS_WORKER_REQUEST_RS485_ACCESS_REQUEST_LIBCACHE_H_
