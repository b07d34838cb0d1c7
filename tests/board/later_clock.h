#ifndef TAMSEL_TESTS_BOARD_LATER_CLOCK_H_
#define TAMSEL_TESTS_BOARD_LATER_CLOCK_H_

#include <cstdint>

/// What the preloaded clock shows more than the machine's, in s: about 40 years.
constexpr std::int64_t kLaterBy = 1262304000;

#endif  // TAMSEL_TESTS_BOARD_LATER_CLOCK_H_
