#include "shared/screen.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "shared/interruption.h"
#include "shared/table.h"

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

/// Over the former picture, line by line, so that nothing flickers. Long lines go on in the next
/// row.
std::string InPlace(const std::string& picture, const winsize& size) {
  constexpr const char* kHome = "\033[H";
  constexpr const char* kClearLine = "\033[K";
  constexpr const char* kClearRest = "\033[J";
  const std::size_t columns = std::max<std::size_t>(size.ws_col, 1);
  const auto rows_of = [&](const std::string& line) {
    return std::max<std::size_t>((Width(line) + columns - 1) / columns, 1);
  };
  std::vector<std::string> lines;
  std::size_t rows = 0;
  std::istringstream text(picture);
  for (std::string line; std::getline(text, line); rows += rows_of(line)) {
    lines.push_back(line);
  }
  // The cursor stands below the last line.
  const std::size_t room = size.ws_row > 1 ? size.ws_row - 1U : rows;
  std::size_t hidden = 0;
  for (; rows + (hidden > 0 ? 1 : 0) > room && !lines.empty(); ++hidden) {
    rows -= rows_of(lines.back());
    lines.pop_back();
  }
  if (hidden > 0) {
    lines.push_back("… and " + std::to_string(hidden) + " more");
  }
  std::string result = kHome;
  for (const std::string& line : lines) {
    // At the end of a full row it would take the last letter.
    const bool is_full = !line.empty() && Width(line) % columns == 0;
    result += line + (is_full ? "" : kClearLine) + "\n";
  }
  return result + kClearRest;
}

}  // namespace

void ShowRepeatedly(std::int64_t period_ms, int count, bool in_place,
                    const std::function<void(std::ostream&)>& draw) {
  const Interruption interruption;
  winsize size{};
  const bool is_screen = in_place && IsTerminal(std::cout, size);
  if (is_screen) {
    std::cout << "\033[2J";
  }
  for (int shown = 1;; ++shown) {
    if (is_screen && IsTerminal(std::cout, size)) {
      std::cout << InPlace(Capture(draw), size);
    } else {
      draw(std::cout);
    }
    if (!std::cout.flush() || shown == count ||
        !interruption.Sleep(std::chrono::milliseconds(period_ms))) {
      break;
    }
  }
}

}  // namespace tmsc::ctl
