#include "shared/interrupt_notice.h"

#include <unistd.h>

#include <cstddef>
#include <iterator>
#include <utility>

#include "shared/exit_code.h"

namespace tmsc::ctl {
namespace {

// For the handler, which may not touch anything that allocates. Set while it is not installed.
const char* notice = nullptr;
std::size_t notice_length = 0;

void PrintAndEnd(int signal_number) {
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, notice, notice_length);
  ::_exit(kExitInterrupted + signal_number);
}

}  // namespace

InterruptNotice::InterruptNotice(std::string text) : text_(std::move(text)) {
  notice = text_.data();
  notice_length = text_.size();
  struct sigaction action {};
  action.sa_handler = PrintAndEnd;
  for (std::size_t index = 0; index < std::size(kSignals); ++index) {
    ::sigaction(kSignals[index], nullptr, &former_[index]);
    if (former_[index].sa_handler != SIG_IGN) {
      ::sigaction(kSignals[index], &action, nullptr);
    }
  }
}

InterruptNotice::~InterruptNotice() {
  for (std::size_t index = 0; index < std::size(kSignals); ++index) {
    ::sigaction(kSignals[index], &former_[index], nullptr);
  }
}

}  // namespace tmsc::ctl
