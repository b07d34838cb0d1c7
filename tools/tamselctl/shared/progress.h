#ifndef TAMSELCTL_SHARED_PROGRESS_H_
#define TAMSELCTL_SHARED_PROGRESS_H_

#include <chrono>
#include <string>

namespace tmsc::ctl {

/// A line on standard error that says how far a long work is: on a terminal only, from 2 s after
/// the construction on, renewed in place and gone in the end.
class Progress {
 public:
  Progress();
  ~Progress() { Clear(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// `text` in place of what stood there.
  void Show(const std::string& text);
  /// Takes the line away, before something else is printed.
  void Clear();

 private:
  const bool is_terminal_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  std::string shown_;
};

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_PROGRESS_H_
