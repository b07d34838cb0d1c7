// Preloaded into a 32-bit program: the wall clock is years ahead, and the calls whose time has 32
// bits do what the C library's do after 19 January 2038.

#include "board/later_clock.h"

#include <dlfcn.h>
#include <sys/syscall.h>

#include <cerrno>

namespace {

constexpr int kRealTime = 0;
constexpr int kRealTimeCoarse = 5;

struct WideTime {
  std::int64_t seconds;
  std::int64_t part;
};

using SystemCall = long (*)(long, ...);
SystemCall TheSystemCall() {
  static const auto call = reinterpret_cast<SystemCall>(::dlsym(RTLD_NEXT, "syscall"));
  return call;
}

bool IsWallClock(long clock) {
  return clock == kRealTime || clock == kRealTimeCoarse;
}

int ReadClock(long clock, WideTime* time) {
  const long result = TheSystemCall()(SYS_clock_gettime64, clock, time);
  time->seconds += result == 0 && IsWallClock(clock) ? kLaterBy : 0;
  return static_cast<int>(result);
}

int Overflow() {
  errno = EOVERFLOW;
  return -1;
}

}  // namespace

extern "C" {

int __clock_gettime64(int clock, WideTime* time) {
  return ReadClock(clock, time);
}

int __gettimeofday64(WideTime* time, void* /*zone*/) {
  const int result = ReadClock(kRealTime, time);
  time->part /= 1000;
  return result;
}

std::int64_t __time64(std::int64_t* time) {
  WideTime now{};
  ReadClock(kRealTime, &now);
  return time == nullptr ? now.seconds : *time = now.seconds;
}

int clock_gettime(int clock, std::int32_t* time) {
  return IsWallClock(clock) ? Overflow()
                            : static_cast<int>(TheSystemCall()(SYS_clock_gettime, clock, time));
}

int gettimeofday(void* /*time*/, void* /*zone*/) {
  return Overflow();
}

std::int32_t time(std::int32_t* time) {
  const auto cut = static_cast<std::int32_t>(__time64(nullptr));
  return time == nullptr ? cut : *time = cut;
}

long syscall(long number, long a, long b, long c, long d, long e, long f) {
  return number == SYS_clock_gettime64 ? ReadClock(a, reinterpret_cast<WideTime*>(b))
                                       : TheSystemCall()(number, a, b, c, d, e, f);
}
}
