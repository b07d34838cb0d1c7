#ifndef TAMSELCTL_SHARED_TABLE_H_
#define TAMSELCTL_SHARED_TABLE_H_

#include <sys/ioctl.h>

#include <cstddef>
#include <iosfwd>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "shared/printable.h"

namespace tmsc::ctl {

/// What a piece of text means; on a terminal it has a colour of its own.
enum class Tone { kPlain, kGood, kWarning, kBad, kDim, kHeading };

/// Whether `output` is standard output on a terminal that shall show colours (no NO_COLOR in the
/// environment, TERM not "dumb").
bool HasColour(const std::ostream& output);

/// Whether `output` is standard output on a terminal; its size is then in `size`, as far as known.
bool IsTerminal(const std::ostream& output, winsize& size);

/// Places that a UTF-8 text takes, colours aside; each code point counts as one.
std::size_t Width(const std::string& text);

/// `text` with the colour of its tone, or as it is.
std::string Coloured(const std::string& text, Tone tone, bool has_colour);

/// Rows of text in aligned columns, for people.
class Table {
 public:
  struct Cell {
    Cell(const std::string& cell_text, Tone cell_tone = Tone::kPlain)  // NOLINT: a text is a cell
        : text(Printable(cell_text)), tone(cell_tone) {}
    Cell(const char* cell_text) : text(cell_text) {}  // NOLINT: a text is a cell
    std::string text;
    Tone tone = Tone::kPlain;
  };

  /// Headings of the columns; one that begins with '>' stands, with its column, at the right.
  explicit Table(std::vector<std::string> headings);

  /// As many cells as there are headings, or fewer.
  void Add(std::vector<Cell> row);
  /// A line of its own below the rows so far, outside the columns.
  void AddLine(std::string line);
  bool IsEmpty() const { return rows_.empty(); }

  /// Two blanks between columns, none at the end of a line. On a terminal that is too narrow
  /// columns at the right are left out, but none of the first `kept`; when these do not fit, texts
  /// of the widest are cut.
  void Print(std::ostream& output, std::size_t kept = kAll) const;

 private:
  static constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();

  /// Of the columns that are shown.
  std::vector<std::size_t> Widths(const std::vector<std::vector<Cell>>& lines, std::size_t room,
                                  std::size_t kept) const;

  std::vector<std::string> headings_;
  std::vector<bool> is_right_;
  std::vector<std::vector<Cell>> rows_;
  std::multimap<std::size_t, std::string> lines_;  // by the number of rows above
};

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_TABLE_H_
