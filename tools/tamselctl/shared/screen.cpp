#include "shared/screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <sstream>
#include <string>

#include "shared/interruption.h"

namespace tmsc::ctl {
namespace {

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
  const Interruption interruption;
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
  } while (std::cout.flush() && interruption.Sleep(std::chrono::milliseconds(period_ms)));
}

}  // namespace tmsc::ctl
