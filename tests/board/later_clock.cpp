// Preloaded into a 32-bit program: its wall clock is LATER_BY s ahead. The calls whose time has 32
// bits do what the C library's do after 19 January 2038.

#include <dlfcn.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstdint>

namespace {

struct WideTime {
  std::int64_t seconds;
  std::int64_t nanoseconds;
};

const auto system_call = reinterpret_cast<long (*)(long, ...)>(::dlsym(RTLD_NEXT, "syscall"));

bool IsWallClock(long clock) {
  return clock == 0 || clock == 5;  // real time, exact or coarse
}

int Overflow() {
  errno = EOVERFLOW;
  return -1;
}

}  // namespace

extern "C" {

int __clock_gettime64(int clock, WideTime* time) {
  const long result = system_call(SYS_clock_gettime64, clock, time);
  time->seconds += IsWallClock(clock) ? LATER_BY : 0;
  return static_cast<int>(result);
}

int clock_gettime(int clock, void* time) {
  return IsWallClock(clock) ? Overflow()
                            : static_cast<int>(system_call(SYS_clock_gettime, clock, time));
}

int gettimeofday(void* /*time*/, void* /*zone*/) {
  return Overflow();
}

long syscall(long number, long a, long b, long c, long d, long e, long f) {
  return number == SYS_clock_gettime64
             ? __clock_gettime64(static_cast<int>(a), reinterpret_cast<WideTime*>(b))
             : system_call(number, a, b, c, d, e, f);
}
}
