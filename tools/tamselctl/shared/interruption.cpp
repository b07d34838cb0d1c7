#include "shared/interruption.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <iterator>

#include "shared/exit_code.h"
#include "utility/deadline.h"

namespace tmsc::ctl {
namespace {

// The handler runs on whichever thread the signal meets.
std::atomic<int> signal_that_came{0};
static_assert(std::atomic<int>::is_always_lock_free);

void Note(int number) {
  signal_that_came = number;
}

}  // namespace

Interruption::Interruption() {
  signal_that_came = 0;
  struct sigaction action {};
  action.sa_handler = Note;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (std::size_t index = 0; index < std::size(kSignals); ++index) {
    ::sigaction(kSignals[index], nullptr, &former_[index]);
    if (former_[index].sa_handler != SIG_IGN) {
      ::sigaction(kSignals[index], &action, nullptr);
    }
  }
}

Interruption::~Interruption() {
  for (std::size_t index = 0; index < std::size(kSignals); ++index) {
    ::sigaction(kSignals[index], &former_[index], nullptr);
  }
}

int Interruption::Signal() const {
  return signal_that_came;
}

int Interruption::ExitCode() const {
  return kExitInterrupted + Signal();
}

bool Interruption::Sleep(std::chrono::milliseconds duration) const {
  const Deadline end(duration);
  while (Signal() == 0 && !end.HasPassed()) {
    std::this_thread::sleep_for(std::min(kPace, std::chrono::milliseconds(end.RemainingMs())));
  }
  return Signal() == 0;
}

}  // namespace tmsc::ctl
