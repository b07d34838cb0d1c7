#include "shared/progress.h"

#include <unistd.h>

#include <iostream>

namespace tmsc::ctl {

Progress::Progress() : is_terminal_(::isatty(STDERR_FILENO) != 0) {}

void Progress::Show(const std::string& text) {
  constexpr std::chrono::seconds kShortWork{2};
  if (is_terminal_ && text != shown_ && std::chrono::steady_clock::now() - begin_ >= kShortWork) {
    std::cerr << "\r\033[K" << text << std::flush;
    shown_ = text;
  }
}

void Progress::Clear() {
  if (!shown_.empty()) {
    std::cerr << "\r\033[K" << std::flush;
    shown_.clear();
  }
}

}  // namespace tmsc::ctl
