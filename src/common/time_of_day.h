#ifndef TAMSEL_COMMON_TIME_OF_DAY_H_
#define TAMSEL_COMMON_TIME_OF_DAY_H_

#include <cstdint>

namespace tmsc {

/// Microseconds since 1970 in Coordinated Universal Time. Right after 19 January 2038 also where
/// time_t has 32 bits. Not for measuring a wait: somebody may set the clock.
std::int64_t MicrosecondsSinceEpoch();

}  // namespace tmsc

#endif  // TAMSEL_COMMON_TIME_OF_DAY_H_
