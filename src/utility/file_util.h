#ifndef TAMSEL_UTILITY_FILE_UTIL_H_
#define TAMSEL_UTILITY_FILE_UTIL_H_

#include <sys/types.h>

#include <string>

#include "utility/singleton.h"

namespace tmsc {

/// File-system operations and the process-wide switch that allows log writes to the card.
///
/// An operation that the file system refuses logs one Error line and returns false (0 for GetSize);
/// none throws. No lock is held: callers that share a file take turns themselves. The answers are
/// those of Poco::File; so one "/" at a path's end counts for nothing.
class FileUtil : public Singleton<FileUtil> {
 public:
  FileUtil() = default;
  virtual ~FileUtil() = default;

  /// Makes the instance when there is none, and turns log writing on.
  static void Create();

  /// Renames a file or folder, replacing an existing file of the new name.
  static bool RenameFile(const std::string& target, const std::string& rename);
  /// Leaves a fresh, empty file: an existing one is removed first. A link that leads nowhere stays,
  /// and the result is false.
  static bool CreateFile(const std::string& target);
  static bool IsFileExists(std::string path);
  /// Whether there is no such file or folder. Any other refusal (an error of the card, no rights, a
  /// loop of links) does not say that: then something may be there, and false is returned.
  static bool IsMissing(const std::string& path);
  /// The last component of a path; empty when the path ends in a separator.
  static std::string GetFileName(std::string path);
  /// With `recursive`, creates missing parents too and returns whether the folder is there
  /// afterwards; without, returns whether this call created it.
  static bool CreateDirectory(const std::string& target, bool recursive);
  /// The same with missing parents, for a caller that tells a refusal itself: no log line.
  static bool TryCreateDirectory(const std::string& target);
  /// The path without its last component, ending in a separator.
  static std::string GetDirectory(const std::string& target);
  /// Changes the write permission; true when it is as wanted afterwards.
  static bool SetWriteable(const std::string& target, bool enable);
  static bool CanWrite(const std::string& target);
  /// Bytes, the low 32 bits; 0 also when the size cannot be read.
  static uint GetSize(const std::string& target);

  /// The log-write switch; any thread. It is on from program start, before the instance exists.
  void SetLogWriteEnable(bool enable);
  static bool IsLogWriteEnable();
};

}  // namespace tmsc

#endif  // TAMSEL_UTILITY_FILE_UTIL_H_
