#include "shared/table.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <numeric>
#include <utility>

namespace tmsc::ctl {
namespace {

const char* ColourCode(Tone tone) {
  switch (tone) {
    case Tone::kGood:
      return "\033[32m";
    case Tone::kWarning:
      return "\033[33m";
    case Tone::kBad:
      return "\033[31m";
    case Tone::kDim:
      return "\033[2m";
    case Tone::kHeading:
      return "\033[1m";
    case Tone::kPlain:
      break;
  }
  return "";
}

/// `text`, or as much of it as takes `width` places with a mark at the end.
std::string Cut(const std::string& text, std::size_t width) {
  if (Width(text) <= width) {
    return text;
  }
  std::size_t end = text.size();
  while (Width(text.substr(0, end)) >= width) {
    --end;
  }
  return text.substr(0, end) + "…";
}

}  // namespace

bool IsTerminal(const std::ostream& output, winsize& size) {
  return &output == &std::cout && ::isatty(STDOUT_FILENO) != 0 &&
         ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0;
}

std::size_t Width(const std::string& text) {
  std::size_t width = 0;
  bool is_colour = false;
  for (const char character : text) {
    is_colour = is_colour || character == '\033';
    width += !is_colour && (static_cast<unsigned char>(character) & 0xC0) != 0x80 ? 1 : 0;
    is_colour = is_colour && character != 'm';
  }
  return width;
}

bool HasColour(const std::ostream& output) {
  const char* terminal = std::getenv("TERM");
  winsize size{};
  return IsTerminal(output, size) && std::getenv("NO_COLOR") == nullptr && terminal != nullptr &&
         std::strcmp(terminal, "dumb") != 0;
}

std::string Coloured(const std::string& text, Tone tone, bool has_colour) {
  return has_colour && tone != Tone::kPlain ? ColourCode(tone) + text + "\033[0m" : text;
}

Table::Table(std::vector<std::string> headings) : headings_(std::move(headings)) {
  for (std::string& heading : headings_) {
    is_right_.push_back(!heading.empty() && heading.front() == '>');
    if (is_right_.back()) {
      heading.erase(0, 1);
    }
  }
}

void Table::Add(std::vector<Cell> row) {
  rows_.push_back(std::move(row));
}

void Table::AddLine(std::string line) {
  lines_.emplace(rows_.size(), std::move(line));
}

std::vector<std::size_t> Table::Widths(const std::vector<std::vector<Cell>>& lines,
                                       std::size_t room, std::size_t kept) const {
  std::vector<std::size_t> widths(headings_.size());
  for (const auto& line : lines) {
    for (std::size_t column = 0; column < line.size(); ++column) {
      widths[column] = std::max(widths[column], Width(line[column].text));
    }
  }
  const auto is_too_wide = [&] {
    return std::accumulate(widths.begin(), widths.end(), 2 * (widths.size() - 1)) > room;
  };
  while (widths.size() > kept && is_too_wide()) {
    widths.pop_back();
  }
  for (auto widest = widths.begin(); is_too_wide() && *widest > 1; --*widest) {
    widest = std::max_element(widths.begin(), widths.end());
  }
  return widths;
}

void Table::Print(std::ostream& output, std::size_t kept) const {
  std::vector<std::vector<Cell>> lines(1);
  for (const std::string& heading : headings_) {
    lines[0].emplace_back(heading, Tone::kHeading);
  }
  lines.insert(lines.end(), rows_.begin(), rows_.end());
  winsize size{};
  const bool has_room = kept >= headings_.size() || !IsTerminal(output, size) || size.ws_col == 0;
  const std::vector<std::size_t> widths = Widths(lines, has_room ? kAll : size.ws_col, kept);
  const bool has_colour = HasColour(output);
  std::size_t rows_above = 0;
  for (const auto& line : lines) {
    std::size_t owed = 0;  // blanks, which follow only when something stands behind them
    for (std::size_t column = 0; column < std::min(line.size(), widths.size()); ++column) {
      const std::string text = Cut(line[column].text, widths[column]);
      const std::size_t blanks = widths[column] - Width(text);
      if (!text.empty()) {
        output << std::string(owed + (is_right_[column] ? blanks : 0), ' ')
               << Coloured(text, line[column].tone, has_colour);
        owed = is_right_[column] ? 0 : blanks;
      } else {
        owed += blanks;
      }
      owed += 2;
    }
    output << '\n';
    for (auto [own, end] = lines_.equal_range(rows_above++); own != end; ++own) {
      output << own->second << '\n';
    }
  }
}

}  // namespace tmsc::ctl
