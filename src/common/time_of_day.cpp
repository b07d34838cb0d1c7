#include "common/time_of_day.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>

namespace tmsc {

namespace {

template <typename Time>
std::int64_t Microseconds(const Time& time) {
  return std::int64_t{time.tv_sec} * 1000000 + time.tv_nsec / 1000;
}

}  // namespace

std::int64_t MicrosecondsSinceEpoch() {
#ifdef SYS_clock_gettime64
  // Only 32-bit systems have this call. The C library's function refuses a time that its time_t
  // cannot hold.
  struct {
    std::int64_t tv_sec;
    std::int64_t tv_nsec;
  } wide_time{};
  if (::syscall(SYS_clock_gettime64, CLOCK_REALTIME, &wide_time) == 0) {
    return Microseconds(wide_time);
  }
#endif
  std::timespec time{};
  ::clock_gettime(CLOCK_REALTIME, &time);
  return Microseconds(time);
}

}  // namespace tmsc
