#ifndef TAMSEL_BENCH_CHILD_PROCESS_H_
#define TAMSEL_BENCH_CHILD_PROCESS_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "utility/descriptor.h"

namespace tmsc::bench {

/// A program started by the benchmark and stopped with SIGTERM when the object goes. Any failure
/// throws std::runtime_error: a figure without its program would mean nothing.
class ChildProcess {
 public:
  /// Runs `arguments[0]`. With `is_output_read` its standard output is for ReadLine, else it goes
  /// to /dev/null.
  ChildProcess(const std::vector<std::string>& arguments, bool is_output_read);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  void Signal(int number) const;

  /// The next line of its standard output, without the line end.
  std::string ReadLine();

  /// A number that /proc/PID/status gives, such as VmRSS in KiB.
  long Status(const std::string& field) const;

  /// Processor time that its present threads have used so far, in seconds.
  double CpuSeconds() const;

 private:
  pid_t pid_ = -1;
  Descriptor output_;
};

}  // namespace tmsc::bench

#endif  // TAMSEL_BENCH_CHILD_PROCESS_H_
