#ifndef TAMSEL_LOG_LOG_TEXT_H_
#define TAMSEL_LOG_LOG_TEXT_H_

#include <exception>
#include <string>
#include <type_traits>

#include "log/logger_log.h"

namespace tmsc {

/// The pieces of a log text joined: texts as they are, numbers in decimal, flags as 1 or 0.
template <typename... Pieces>
std::string LogText(const Pieces&... pieces) {
  std::string text;
  const auto append = [&text](const auto& piece) {
    using Piece = std::decay_t<decltype(piece)>;
    if constexpr (std::is_same_v<Piece, bool>) {
      text += piece ? '1' : '0';
    } else if constexpr (std::is_arithmetic_v<Piece>) {
      text += std::to_string(piece);
    } else {
      text += piece;
    }
  };
  (append(pieces), ...);
  return text;
}

/// Called in a handler: leaves an Error line, "lead_in" and what the exception says. When there is
/// no memory for the line, the line is all that is lost.
inline void LogException(const std::string& tag, const char* lead_in) noexcept {
  try {
    try {
      throw;
    } catch (const std::exception& failure) {
      LoggerLog::Error(tag, LogText(lead_in, failure.what()));
    } catch (...) {
      LoggerLog::Error(tag, LogText(lead_in, "unknown"));
    }
  } catch (...) {
  }
}

}  // namespace tmsc

#endif  // TAMSEL_LOG_LOG_TEXT_H_
