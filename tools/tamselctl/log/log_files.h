#ifndef TAMSELCTL_LOG_LOG_FILES_H_
#define TAMSELCTL_LOG_LOG_FILES_H_

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "utility/descriptor.h"

namespace tmsc::ctl {

/// Takes a line without its end; `is_whole` is false when the file ends before the line does, or
/// the line is longer than any line.
using LineTaker = std::function<void(std::string_view line, bool is_whole)>;

/// Cuts text that comes in pieces into lines.
class LineSplitter {
 public:
  void Add(std::string_view text, const LineTaker& take);
  /// No more text: what is left is a line that is not whole.
  void End(const LineTaker& take);

 private:
  std::string rest_;
  bool is_too_long_ = false;  // the rest of a line that was given up
};

/// An open file of the log.
struct LogFile {
  std::string path;
  Descriptor descriptor;
};

/// What was found, oldest first, and one line for each place that cannot be read.
struct LogFiles {
  std::vector<LogFile> files;
  std::vector<std::string> mistakes;
};

/// Opens the log at each place: a folder with LoggerCom.log and its rotated copies, a card with
/// that folder on it, or a file; "-" is standard input. Files that are copies of one log are put in
/// order by their numbers. A rotation meanwhile loses and doubles nothing.
LogFiles OpenLog(const std::vector<std::string>& places);

/// Reads a file, or what it has more than before, to its end; false, and errno, when that fails.
bool ReadToEnd(const LogFile& file, LineSplitter& splitter, const LineTaker& take);

/// Reads on in the live file of a log that grows and is rotated, from where `file` was read to.
class LogFollower {
 public:
  explicit LogFollower(LogFile file);

  /// Takes what has come since the last call, in whole lines, from as many files as were begun
  /// since. False when it had to begin anew, since the file is in none of the copies any more or
  /// has been cut: lines may be missing.
  bool Poll(const LineTaker& take);

 private:
  bool TakeNewerFiles(const LineTaker& take);

  LogFile file_;
  LineSplitter splitter_;
};

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_LOG_LOG_FILES_H_
