#ifndef TAMSELCTL_SHARED_INTERRUPT_NOTICE_H_
#define TAMSELCTL_SHARED_INTERRUPT_NOTICE_H_

#include <signal.h>

#include <string>

namespace tmsc::ctl {

/// As long as it lives, SIGINT and SIGTERM print `text` on standard error and end the process with
/// kExitInterrupted and the signal's number. A signal that the caller has ignored (nohup, a shell's
/// background job) stays ignored. One object at a time, on the main thread.
class InterruptNotice {
 public:
  explicit InterruptNotice(std::string text);
  ~InterruptNotice();
  InterruptNotice(const InterruptNotice&) = delete;
  InterruptNotice& operator=(const InterruptNotice&) = delete;

 private:
  static constexpr int kSignals[] = {SIGINT, SIGTERM};

  std::string text_;
  struct sigaction former_[2] = {};
};

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_INTERRUPT_NOTICE_H_
