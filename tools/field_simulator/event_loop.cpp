#include "event_loop.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <array>

#include "system_error.h"

namespace tmsc::simulator {
namespace {

constexpr std::uint64_t kWakeEventId = 0;
constexpr std::uint64_t kTimerId = ~kWakeEventId;

}  // namespace

EventLoop::EventLoop()
    : epoll_(epoll_create1(EPOLL_CLOEXEC)),
      wake_event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      timer_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)) {
  if (!epoll_.IsOpen() || !wake_event_.IsOpen() || !timer_.IsOpen()) {
    throw SystemError("cannot make the event loop");
  }
  Watch(wake_event_.Get(), kWakeEventId, EPOLLIN, EPOLL_CTL_ADD);
  Watch(timer_.Get(), kTimerId, EPOLLIN, EPOLL_CTL_ADD);
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
    SetTimer();
    lock.unlock();
    const int count = epoll_wait(epoll_.Get(), events.data(), static_cast<int>(events.size()), -1);
    lock.lock();
    for (int index = 0; index < count && !is_stopping_; ++index) {
      const epoll_event& event = events[static_cast<std::size_t>(index)];
      CallEvents(event.data.u64, event.events);
    }
    CallTimes();
  }
}

void EventLoop::SetTimer() const {
  itimerspec setting{};  // off
  if (!wakes_.empty()) {
    const auto moment = std::max<std::chrono::nanoseconds>(wakes_.begin()->first.time_since_epoch(),
                                                           std::chrono::nanoseconds(1));
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(moment);
    setting.it_value = {static_cast<time_t>(seconds.count()),
                        static_cast<long>((moment - seconds).count())};
  }
  timerfd_settime(timer_.Get(), TFD_TIMER_ABSTIME, &setting, nullptr);
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
