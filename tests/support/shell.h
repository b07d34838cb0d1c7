#ifndef TAMSEL_TESTS_SUPPORT_SHELL_H_
#define TAMSEL_TESTS_SUPPORT_SHELL_H_

#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace tmsc::test {

struct ShellResult {
  int exit_code = -1;  // -1: ended by a signal
  std::string output;  // both streams
};

/// Runs a program with a shell's words; one that takes longer than 20 s ends with 124.
inline ShellResult RunShell(const std::string& command) {
  ShellResult run;
  // The words are the test's own, so the shell does what it should with them.
  FILE* const pipe = ::popen(("exec 2>&1; timeout 20 " + command).c_str(), "re");  // NOLINT(*)
  if (pipe == nullptr) {
    return run;
  }
  char buffer[4096];
  for (std::size_t count = 0; (count = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;) {
    run.output.append(buffer, count);
  }
  const int status = ::pclose(pipe);
  run.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_SUPPORT_SHELL_H_
