#ifndef TAMSEL_TESTS_SUPPORT_CONSOLE_H_
#define TAMSEL_TESTS_SUPPORT_CONSOLE_H_

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "support/files.h"

namespace tmsc::test {

/// Takes this process's standard output into a file as long as it lives. Failed assertions are told
/// on standard error, see test_main.cpp.
class Console {
 public:
  Console() : saved_(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)) {
    std::fflush(stdout);
    const int file = ::open(Path().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    ::dup2(file, STDOUT_FILENO);
    ::close(file);
  }
  ~Console() {
    std::fflush(stdout);
    ::dup2(saved_, STDOUT_FILENO);
    ::close(saved_);
  }
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  /// Everything written so far.
  std::string Text() const { return ReadFile(Path()); }

 private:
  std::string Path() const { return folder_.Path("console"); }

  TempFolder folder_;
  int saved_;
};

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_SUPPORT_CONSOLE_H_
