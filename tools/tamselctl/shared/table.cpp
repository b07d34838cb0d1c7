#include "shared/table.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
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

std::size_t Width(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char character) {
    return (static_cast<unsigned char>(character) & 0xC0) != 0x80;
  }));
}

}  // namespace

bool HasColour(const std::ostream& output) {
  const char* terminal = std::getenv("TERM");
  return &output == &std::cout && ::isatty(STDOUT_FILENO) != 0 &&
         std::getenv("NO_COLOR") == nullptr && terminal != nullptr &&
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

void Table::Print(std::ostream& output) const {
  std::vector<std::vector<Cell>> lines(1);
  for (const std::string& heading : headings_) {
    lines[0].emplace_back(heading, Tone::kHeading);
  }
  lines.insert(lines.end(), rows_.begin(), rows_.end());
  std::vector<std::size_t> widths(headings_.size());
  for (const auto& line : lines) {
    for (std::size_t column = 0; column < line.size(); ++column) {
      widths[column] = std::max(widths[column], Width(line[column].text));
    }
  }
  const bool has_colour = HasColour(output);
  std::size_t rows_above = 0;
  for (const auto& line : lines) {
    std::size_t owed = 0;  // blanks, which follow only when something stands behind them
    for (std::size_t column = 0; column < line.size(); ++column) {
      const Cell& cell = line[column];
      const std::size_t blanks = widths[column] - Width(cell.text);
      if (!cell.text.empty()) {
        output << std::string(owed + (is_right_[column] ? blanks : 0), ' ')
               << Coloured(cell.text, cell.tone, has_colour);
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
