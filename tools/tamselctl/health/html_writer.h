#ifndef TAMSELCTL_HEALTH_HTML_WRITER_H_
#define TAMSELCTL_HEALTH_HTML_WRITER_H_

#include <iosfwd>
#include <string>
#include <vector>

namespace tmsc::ctl {

/// `text` as it may stand in an element or between the quotes of an attribute.
std::string Html(const std::string& text);

/// A table with a caption, whose cells also carry the heading of their column, for a screen that is
/// too narrow for columns.
class HtmlTable {
 public:
  struct Column {
    const char* heading;
    bool is_number;
  };
  struct Cell {
    Cell(std::string cell_text, const char* cell_tone = "")  // NOLINT: a text is a cell
        : text(std::move(cell_text)), tone(cell_tone) {}
    std::string text;  // not escaped yet
    const char* tone;  // a class of the style sheet; empty: none
  };

  HtmlTable(std::ostream& output, const std::string& caption, std::vector<Column> columns);
  ~HtmlTable();
  HtmlTable(const HtmlTable&) = delete;
  HtmlTable& operator=(const HtmlTable&) = delete;

  /// As many cells as there are columns.
  void Row(const std::vector<Cell>& cells);

 private:
  std::ostream& output_;
  std::vector<Column> columns_;
};

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_HEALTH_HTML_WRITER_H_
