// Preloaded into a 64-bit program: as long as the file $UNSET_WHILE is there, its wall clock says
// that it is about 1972.

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>

extern "C" int clock_gettime(clockid_t clock, timespec* time) {
  using Call = int (*)(clockid_t, timespec*);
  static const auto call = reinterpret_cast<Call>(::dlsym(RTLD_NEXT, "clock_gettime"));
  const int result = call(clock, time);
  if (clock == CLOCK_REALTIME && ::access(::getenv("UNSET_WHILE"), F_OK) == 0) {
    time->tv_sec -= 1700000000;
  }
  return result;
}
