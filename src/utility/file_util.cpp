#include "utility/file_util.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Path.h>
#include <limits.h>

#include <atomic>

#include "log/log_text.h"
#include "utility/constant_string.h"

namespace tmsc {

namespace {

const std::string& kLogTag = ConstantString("FlUtil");

// Atomic rather than under a lock: every log call reads it.
std::atomic<bool> is_log_write_enable_{true};

constexpr std::size_t kShownPathLength = 200;

/// No system call takes a longer path, and to create its folders one by one would take gigabytes.
bool IsTooLong(const std::string& path) {
  return path.size() >= PATH_MAX;
}

/// A path as a log line shows it.
std::string Shown(const std::string& path) {
  return IsTooLong(path) ? path.substr(0, kShownPathLength) + "..." : path;
}

/// Runs a file operation. A refusal is logged, with the lead-in and the path, and gives the result
/// type's zero.
template <typename Operation>
auto LogRefusal(const std::string& lead_in, const std::string& path, Operation operation)
    -> decltype(operation()) {
  try {
    return operation();
  } catch (const Poco::Exception& refusal) {
    LoggerLog::Error(kLogTag, LogText(lead_in, Shown(path), "] [", refusal.displayText(), "]"));
    return {};
  }
}

}  // namespace

void FileUtil::Create() {
  Singleton<FileUtil>::Create();
  is_log_write_enable_ = true;
}

bool FileUtil::RenameFile(const std::string& target, const std::string& rename) {
  return LogRefusal("Rename file. file:[", target + "] -> [" + rename, [&] {
    Poco::File(target).renameTo(rename);
    return true;
  });
}

bool FileUtil::CreateFile(const std::string& target) {
  return LogRefusal("Create file. file:[", target, [&] {
    Poco::File file(target);
    if (IsFileExists(target)) {
      file.remove();
    }
    return file.createFile();
  });
}

bool FileUtil::IsFileExists(std::string path) {
  return !path.empty() && Poco::File(path).exists();
}

std::string FileUtil::GetFileName(std::string path) {
  return path.empty() ? std::string() : Poco::Path(path).getFileName();
}

bool FileUtil::CreateDirectory(const std::string& target, bool recursive) {
  return LogRefusal("Create directory fail. fl:[", target, [&] {
    if (IsTooLong(target)) {
      throw Poco::PathSyntaxException("too long for a path", static_cast<int>(target.size()));
    }
    Poco::File directory(target);
    if (!recursive) {
      return directory.createDirectory();
    }
    directory.createDirectories();
    return IsFileExists(target);
  });
}

std::string FileUtil::GetDirectory(const std::string& target) {
  return Poco::Path(target).parent().toString();
}

bool FileUtil::SetWriteable(const std::string& target, bool enable) {
  return LogRefusal("Set Writable fail. file:[", target, [&] {
    Poco::File file(target);
    file.setWriteable(enable);
    return file.canWrite() == enable;
  });
}

bool FileUtil::CanWrite(const std::string& target) {
  return LogRefusal("Can Write fail. file:[", target,
                    [&] { return Poco::File(target).canWrite(); });
}

uint FileUtil::GetSize(const std::string& target) {
  return LogRefusal("Get fail size fail. file:[", target,
                    [&] { return static_cast<uint>(Poco::File(target).getSize()); });
}

void FileUtil::SetLogWriteEnable(bool enable) {
  // Made in advance: the switch changes also when there is no memory for its line.
  static const std::string& on_text = ConstantString("SetLogWriteEnable:1");
  static const std::string& off_text = ConstantString("SetLogWriteEnable:0");
  LoggerLog::Verbose(kLogTag, enable ? on_text : off_text);
  is_log_write_enable_ = enable;
}

bool FileUtil::IsLogWriteEnable() {
  return is_log_write_enable_;
}

}  // namespace tmsc
