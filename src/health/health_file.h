#ifndef TAMSEL_HEALTH_HEALTH_FILE_H_
#define TAMSEL_HEALTH_HEALTH_FILE_H_

#include <atomic>
#include <cstddef>
#include <string>

#include "utility/descriptor.h"

namespace tmsc {

/// The health file as something that records are written into, whatever becomes of it: removed,
/// truncated, replaced, its file system full or read-only. Nothing is thrown and nothing is logged.
///
/// Write may be called by any thread at any time; all else belongs to one thread.
class HealthFile {
 public:
  explicit HealthFile(std::string path);

  /// Opens the file, made with its folder when there is none, and takes it over. A health file of
  /// another layout is renamed first, to `moved_to`; empty: there was none. A file that is no
  /// health file, or another daemon's, stays as it is. Returns what keeps it from being used, for
  /// people to read; empty when it is open.
  std::string Open(std::string& moved_to);

  /// Whether the path still leads to the open file, and its size and header are right.
  bool IsIntact() const;

  /// Puts `size` bytes at `offset`, with one system call. False when the file did not take them.
  /// Does nothing, and succeeds, when the file is not open.
  bool Write(std::size_t offset, const void* record, std::size_t size) const;

  /// Takes `size` bytes from `offset`; zeros where the file has none.
  void Read(std::size_t offset, void* record, std::size_t size) const;

  /// Whether a write goes to memory only and may be made by a thread that must not wait.
  bool IsInMemory() const { return is_in_memory_; }

  const std::string& Path() const { return path_; }

 private:
  Descriptor OpenNamed() const;
  std::string Claim(const Descriptor& file) const;
  bool WriteHeader();

  const std::string path_;
  // The number never changes; which file it stands for is exchanged in one step, so that a write of
  // another thread goes to the old or the new one. /dev/null as long as there is none.
  Descriptor file_;
  std::atomic<bool> is_in_memory_{false};
};

}  // namespace tmsc

#endif  // TAMSEL_HEALTH_HEALTH_FILE_H_
