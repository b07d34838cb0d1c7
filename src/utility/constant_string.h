#ifndef TAMSEL_UTILITY_CONSTANT_STRING_H_
#define TAMSEL_UTILITY_CONSTANT_STRING_H_

#include <string>

namespace tmsc {

/// A string constant that is never destroyed: worker threads may still log with it while the
/// process ends.
inline const std::string& ConstantString(const char* text) {
  return *new std::string(text);
}

}  // namespace tmsc

#endif  // TAMSEL_UTILITY_CONSTANT_STRING_H_
