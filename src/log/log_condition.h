#ifndef TAMSEL_LOG_LOG_CONDITION_H_
#define TAMSEL_LOG_LOG_CONDITION_H_

#include <atomic>
#include <cstdint>

namespace tmsc {

/// How the log is doing, for whoever wants to show it. Any thread.
struct LogCondition {
  std::atomic<std::uint32_t> lines_lost{0};  // that the card never got, of this process
  std::atomic<bool> is_card_gone{false};     // or full, or read-only: no line reaches it
};

inline LogCondition log_condition;

}  // namespace tmsc

#endif  // TAMSEL_LOG_LOG_CONDITION_H_
