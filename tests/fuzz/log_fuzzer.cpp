// A log, as the card gives it back, through the field tool's reader and summary.

#include <sstream>

#include "fuzz/input_file.h"
#include "log/log_files.h"
#include "log/log_line.h"
#include "log/log_summary.h"

using namespace tmsc;

namespace {

/// The summary of a text that comes in pieces of `piece` bytes.
std::string Summary(std::string_view text, std::size_t piece) {
  ctl::LogSummary summary;
  ctl::LineSplitter splitter;
  const auto take = [&](std::string_view line, bool is_whole) {
    const ctl::ParsedLine parsed = ctl::ParseLogLine(line);
    if (parsed.line) {
      summary.Take(*parsed.line);
    }
    if (parsed.is_damaged || !is_whole) {
      summary.TakeDamaged();
    }
  };
  for (std::size_t at = 0; at < text.size(); at += piece) {
    splitter.Add(text.substr(at, piece), take);
  }
  splitter.End(take);
  summary.End();
  std::ostringstream output;
  summary.PrintJson(output, {});
  return output.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  test::Require(Summary(text, 7) == Summary(text, 4096));
  return 0;
}
