#ifndef TAMSEL_FIELD_SIMULATOR_EVENT_LOOP_H_
#define TAMSEL_FIELD_SIMULATOR_EVENT_LOOP_H_

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <utility>

#include "utility/descriptor.h"

namespace tmsc::simulator {

/// The one thread that serves all devices: it waits for descriptors and for points in time.
///
/// Start and Stop are for one thread at a time. All else needs the lock, which the thread of the
/// loop holds while it calls a handler.
class EventLoop {
 public:
  using Clock = std::chrono::steady_clock;
  using TimePoint = Clock::time_point;

  /// What the loop calls, with the id that Add gave.
  class Handler {
   public:
    virtual ~Handler() = default;
    /// The watched descriptor has these epoll events.
    virtual void HandleEvents(std::uint64_t id, std::uint32_t events) = 0;
    /// The time of WakeAt has come.
    virtual void HandleTime(std::uint64_t id) = 0;
  };

  /// Throws std::system_error when there are no descriptors left.
  EventLoop();
  /// Stops.
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  /// Starts the thread; once only.
  void Start();
  /// Ends the thread; no handler is called any more. Nothing when it does not run.
  void Stop();

  /// Keeps the thread from calling handlers as long as it is held.
  std::unique_lock<std::mutex> Lock() { return std::unique_lock<std::mutex>(mutex_); }

  /// A new id, never given before. The handler outlives the id.
  std::uint64_t Add(Handler& handler);
  /// Forgets the id and its time; its descriptor is the caller's to Close. Events that are under
  /// way for it are dropped.
  void Remove(std::uint64_t id);

  /// Calls epoll_ctl with this operation (EPOLL_CTL_...); throws std::system_error when it fails.
  void Watch(int descriptor, std::uint64_t id, std::uint32_t events, int operation);
  /// Closes a descriptor that may be watched, at once: left to the close, the loop's thread could
  /// keep the file open, and its other end connected, until its next wake.
  void Close(Descriptor& descriptor);
  /// Replaces the time at which the id's handler is called, once; empty: not at all. From another
  /// thread than the loop's it counts from the loop's next wake on.
  void WakeAt(std::uint64_t id, std::optional<TimePoint> time);

 private:
  struct Entry {
    Handler* handler = nullptr;
    std::optional<TimePoint> wake;
  };

  void Run();
  /// To the first wake, if there is one.
  void SetTimer() const;
  void CallEvents(std::uint64_t id, std::uint32_t events);
  void CallTimes();

  std::mutex mutex_;
  bool is_stopping_ = false;
  Descriptor epoll_;
  Descriptor wake_event_;
  /// epoll_wait counts in milliseconds, and a line's characters come faster.
  Descriptor timer_;
  /// 1 and up. An event carries the id, never a pointer: what it is about may be gone.
  std::uint64_t last_id_ = 0;
  std::map<std::uint64_t, Entry> entries_;
  std::set<std::pair<TimePoint, std::uint64_t>> wakes_;
  std::thread thread_;
};

}  // namespace tmsc::simulator

#endif  // TAMSEL_FIELD_SIMULATOR_EVENT_LOOP_H_
