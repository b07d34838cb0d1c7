#ifndef TAMSELCTL_SHARED_TABLE_H_
#define TAMSELCTL_SHARED_TABLE_H_

#include <cstddef>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

namespace tmsc::ctl {

/// What a piece of text means; on a terminal it has a colour of its own.
enum class Tone { kPlain, kGood, kWarning, kBad, kDim, kHeading };

/// Whether `output` is standard output on a terminal that shall show colours (no NO_COLOR in the
/// environment, TERM not "dumb").
bool HasColour(const std::ostream& output);

/// `text` with the colour of its tone, or as it is.
std::string Coloured(const std::string& text, Tone tone, bool has_colour);

/// Rows of text in aligned columns, for people. Texts are UTF-8; each code point counts as one
/// place.
class Table {
 public:
  struct Cell {
    Cell(std::string cell_text, Tone cell_tone = Tone::kPlain)  // NOLINT: a text is a cell
        : text(std::move(cell_text)), tone(cell_tone) {}
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

  /// Two blanks between columns, none at the end of a line.
  void Print(std::ostream& output) const;

 private:
  std::vector<std::string> headings_;
  std::vector<bool> is_right_;
  std::vector<std::vector<Cell>> rows_;
  std::multimap<std::size_t, std::string> lines_;  // by the number of rows above
};

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_TABLE_H_
