#ifndef TAMSELCTL_SHARED_ATOMIC_FILE_H_
#define TAMSELCTL_SHARED_ATOMIC_FILE_H_

#include <string>

namespace tmsc::ctl {

/// Puts `text` into the file at `path` such that a reader finds the former file or the new one,
/// never a part: it is written beside it under a hidden name that ends in .tmp, and renamed. Gives
/// what went wrong, for people to read; empty when nothing did. The former file is then untouched.
std::string WriteAtomically(const std::string& path, const std::string& text);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_ATOMIC_FILE_H_
