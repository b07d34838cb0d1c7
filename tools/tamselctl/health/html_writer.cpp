#include "health/html_writer.h"

#include <ostream>
#include <utility>

namespace tmsc::ctl {

std::string Html(const std::string& text) {
  std::string result;
  for (const char character : text) {
    switch (character) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      case '"':
        result += "&quot;";
        break;
      case '\'':
        result += "&#39;";
        break;
      default:
        result += character;
    }
  }
  return result;
}

HtmlTable::HtmlTable(std::ostream& output, const std::string& caption, std::vector<Column> columns)
    : output_(output), columns_(std::move(columns)) {
  output_ << "<table>\n<caption>" << Html(caption) << "</caption>\n<thead><tr>";
  for (const Column& column : columns_) {
    output_ << "<th scope=\"col\"" << (column.is_number ? " class=\"number\"" : "") << ">"
            << Html(column.heading) << "</th>";
  }
  output_ << "</tr></thead>\n<tbody>\n";
}

HtmlTable::~HtmlTable() {
  output_ << "</tbody>\n</table>\n";
}

void HtmlTable::Row(const std::vector<Cell>& cells) {
  output_ << "<tr>";
  for (std::size_t index = 0; index < cells.size(); ++index) {
    const Column& column = columns_[index];
    output_ << "<td data-label=\"" << Html(column.heading) << '"'
            << (column.is_number ? " class=\"number\"" : "") << '>';
    // One element for what stands beside the heading on a narrow screen.
    if (!cells[index].text.empty()) {
      output_ << "<span class=\"" << cells[index].tone << "\">" << Html(cells[index].text)
              << "</span>";
    }
    output_ << "</td>";
  }
  output_ << "</tr>\n";
}

}  // namespace tmsc::ctl
