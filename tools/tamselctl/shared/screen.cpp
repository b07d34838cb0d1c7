#include "shared/screen.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <iostream>
#include <sstream>
#include <string>

namespace tmsc::ctl {
namespace {

/// The two signals that end the program, kept back so that they can be waited for.
class EndSignals {
 public:
  EndSignals() {
    sigemptyset(&signals_);
    for (const int signal_number : {SIGINT, SIGTERM}) {
      // One that the caller has ignored (a shell's background job) stays ignored.
      struct sigaction action {};
      if (::sigaction(signal_number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
        sigaddset(&signals_, signal_number);
      }
    }
    ::sigprocmask(SIG_BLOCK, &signals_, &former_);
  }
  ~EndSignals() { ::sigprocmask(SIG_SETMASK, &former_, nullptr); }
  EndSignals(const EndSignals&) = delete;
  EndSignals& operator=(const EndSignals&) = delete;

  /// Whether one came before the time was over.
  bool Wait(std::int64_t duration_ms) const {
    const timespec duration{static_cast<std::time_t>(duration_ms / 1000),
                            static_cast<long>(duration_ms % 1000 * 1000000)};
    // Another signal, such as that of a window that changes its size, ends a wait early.
    return ::sigtimedwait(&signals_, nullptr, &duration) > 0;
  }

 private:
  sigset_t signals_{};
  sigset_t former_{};
};

/// What is printed on standard output meanwhile, colours as on the terminal.
std::string Capture(const std::function<void(std::ostream&)>& draw) {
  std::ostringstream text;
  std::streambuf* const terminal = std::cout.rdbuf(text.rdbuf());
  draw(std::cout);
  std::cout.rdbuf(terminal);
  return text.str();
}

/// Over the former picture, line by line, so that nothing flickers.
std::string InPlace(const std::string& picture) {
  constexpr const char* kHome = "\033[H";
  constexpr const char* kNoWrap = "\033[?7l";
  constexpr const char* kWrap = "\033[?7h";
  constexpr const char* kClearLine = "\033[K";
  constexpr const char* kClearRest = "\033[J";
  winsize size{};
  const bool has_size = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 1;
  std::string result = std::string(kHome) + kNoWrap;
  std::istringstream lines(picture);
  int row = 1;
  for (std::string line; std::getline(lines, line) && (!has_size || row < size.ws_row); ++row) {
    result += line + kClearLine + "\n";
  }
  return result + kClearRest + kWrap;
}

}  // namespace

void ShowRepeatedly(std::int64_t period_ms, bool in_place,
                    const std::function<void(std::ostream&)>& draw) {
  const EndSignals end_signals;
  const bool is_screen = in_place && ::isatty(STDOUT_FILENO) != 0;
  if (is_screen) {
    std::cout << "\033[2J";
  }
  do {
    if (is_screen) {
      std::cout << InPlace(Capture(draw));
    } else {
      draw(std::cout);
    }
  } while (std::cout.flush() && !end_signals.Wait(period_ms));
}

}  // namespace tmsc::ctl
