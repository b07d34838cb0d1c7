#include "event_loop.h"

#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>

#include "system_error.h"

namespace tmsc::simulator {
namespace {

constexpr std::uint64_t kWakeEventId = 0;

}  // namespace

EventLoop::EventLoop()
    : epoll_(epoll_create1(EPOLL_CLOEXEC)), wake_event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!epoll_.IsOpen() || !wake_event_.IsOpen()) {
    throw SystemError("cannot make the event loop");
  }
  Watch(wake_event_.Get(), kWakeEventId, EPOLLIN, EPOLL_CTL_ADD);
}

EventLoop::~EventLoop() {
  Stop();
}

void EventLoop::Start() {
  // Signals are for the program the devices run in, never for their thread.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  thread_ = std::thread(&EventLoop::Run, this);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void EventLoop::Stop() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    is_stopping_ = true;
  }
  eventfd_write(wake_event_.Get(), 1);
  if (thread_.joinable()) {
    thread_.join();
  }
}

std::uint64_t EventLoop::Add(Handler& handler) {
  entries_[++last_id_].handler = &handler;
  return last_id_;
}

void EventLoop::Remove(std::uint64_t id) {
  WakeAt(id, std::nullopt);
  entries_.erase(id);
}

void EventLoop::Watch(int descriptor, std::uint64_t id, std::uint32_t events, int operation) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  if (epoll_ctl(epoll_.Get(), operation, descriptor, &event) != 0) {
    throw SystemError("cannot watch a descriptor");
  }
}

void EventLoop::Close(Descriptor& descriptor) {
  epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, descriptor.Get(), nullptr);
  descriptor.Reset();
}

void EventLoop::WakeAt(std::uint64_t id, std::optional<TimePoint> time) {
  Entry& entry = entries_.at(id);
  if (entry.wake) {
    wakes_.erase({*entry.wake, id});
  }
  entry.wake = time;
  if (time) {
    wakes_.emplace(*time, id);
  }
}

void EventLoop::Run() {
  std::array<epoll_event, 64> events{};
  std::unique_lock<std::mutex> lock(mutex_);
  while (!is_stopping_) {
    const std::optional<timespec> wait_time = WaitTime();
    lock.unlock();
    // ppoll, because epoll_wait counts in milliseconds: a line's characters come faster.
    pollfd ready = {epoll_.Get(), POLLIN, 0};
    ppoll(&ready, 1, wait_time ? &*wait_time : nullptr, nullptr);
    const int count = epoll_wait(epoll_.Get(), events.data(), static_cast<int>(events.size()), 0);
    lock.lock();
    for (int index = 0; index < count && !is_stopping_; ++index) {
      const epoll_event& event = events[static_cast<std::size_t>(index)];
      CallEvents(event.data.u64, event.events);
    }
    CallTimes();
  }
}

/// Time to the first wake; empty: no limit.
std::optional<timespec> EventLoop::WaitTime() const {
  if (wakes_.empty()) {
    return std::nullopt;
  }
  const auto wait = std::max<std::chrono::nanoseconds>(wakes_.begin()->first - Clock::now(),
                                                       std::chrono::nanoseconds(0));
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(wait);
  return timespec{static_cast<time_t>(seconds.count()),
                  static_cast<long>((wait - seconds).count())};
}

void EventLoop::CallEvents(std::uint64_t id, std::uint32_t events) {
  if (id == kWakeEventId) {
    eventfd_t ignored = 0;
    eventfd_read(wake_event_.Get(), &ignored);
    return;
  }
  if (const auto found = entries_.find(id); found != entries_.end()) {
    found->second.handler->HandleEvents(id, events);
  }
}

void EventLoop::CallTimes() {
  const TimePoint now = Clock::now();
  while (!wakes_.empty() && wakes_.begin()->first <= now) {
    const std::uint64_t id = wakes_.begin()->second;
    WakeAt(id, std::nullopt);
    entries_.at(id).handler->HandleTime(id);
  }
}

}  // namespace tmsc::simulator
