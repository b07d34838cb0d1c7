#ifndef TAMSEL_TESTS_FUZZ_INPUT_FILE_H_
#define TAMSEL_TESTS_FUZZ_INPUT_FILE_H_

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "utility/descriptor.h"

namespace tmsc::test {

/// A fuzzer's input as a file in memory.
class InputFile {
 public:
  InputFile(const void* data, std::size_t size) : file_(::memfd_create("input", MFD_CLOEXEC)) {
    if (::write(file_.Get(), data, size) != static_cast<ssize_t>(size)) {
      std::abort();
    }
  }
  std::string Path() const { return "/proc/self/fd/" + std::to_string(file_.Get()); }

 private:
  const Descriptor file_;
};

/// Ends the program, which the fuzzer takes for a find, when `is_right` is not.
inline void Require(bool is_right) {
  if (!is_right) {
    std::abort();
  }
}

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_FUZZ_INPUT_FILE_H_
