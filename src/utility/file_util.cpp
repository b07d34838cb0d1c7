#include "utility/file_util.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Path.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

#include "log/log_text.h"
#include "utility/constant_string.h"
#include "utility/descriptor.h"

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

/// Throws what errno says of a system call for the path that failed.
void Require(bool is_done, const std::string& path) {
  if (!is_done) {
    Poco::File::handleLastError(path);
  }
}

/// What Poco::File makes of a path.
std::string AsFile(const std::string& path) {
  return path.size() > 1 && path.back() == '/' ? path.substr(0, path.size() - 1) : path;
}

// Poco's own operations fail on 32-bit systems for whatever was changed after 19 January 2038:
// their time has 32 bits there, also where ours has 64.
bool ReadStatus(const std::string& path, struct stat& status) {
  return ::stat(AsFile(path).c_str(), &status) == 0;
}

struct stat StatusOf(const std::string& path) {
  struct stat status {};
  Require(ReadStatus(path, status), AsFile(path));
  return status;
}

void MakeDirectories(const std::string& target) {
  const std::string path = AsFile(target);
  if (IsTooLong(path)) {
    throw Poco::PathSyntaxException("too long for a path", static_cast<int>(path.size()));
  }
  if (FileUtil::IsFileExists(path)) {
    return;
  }
  for (std::size_t end = 0; end != std::string::npos;) {
    end = path.find('/', end + 1);
    const std::string part = path.substr(0, end);
    Require(::mkdir(part.c_str(), 0777) == 0 || errno == EEXIST, part);
  }
}

bool IsWriteable(const struct stat& status) {
  if (status.st_uid == ::geteuid()) {
    return (status.st_mode & S_IWUSR) != 0;
  }
  return status.st_gid == ::getegid() ? (status.st_mode & S_IWGRP) != 0
                                      : (status.st_mode & S_IWOTH) != 0 || ::geteuid() == 0;
}

}  // namespace

void FileUtil::Create() {
  Singleton<FileUtil>::Create();
  is_log_write_enable_ = true;
}

bool FileUtil::RenameFile(const std::string& target, const std::string& rename) {
  return LogRefusal("Rename file. file:[", target + "] -> [" + rename, [&] {
    const std::string path = AsFile(target);
    Require(std::rename(path.c_str(), rename.c_str()) == 0, path);
    return true;
  });
}

bool FileUtil::CreateFile(const std::string& target) {
  return LogRefusal("Create file. file:[", target, [&] {
    const std::string path = AsFile(target);
    Require(!IsFileExists(path) || std::remove(path.c_str()) == 0, path);
    const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    Require(file.IsOpen() || errno == EEXIST, path);
    return file.IsOpen();
  });
}

bool FileUtil::IsFileExists(std::string path) {
  struct stat status {};
  return !path.empty() && ReadStatus(path, status);
}

bool FileUtil::IsMissing(const std::string& path) {
  struct stat status {};
  return !ReadStatus(path, status) && errno == ENOENT;
}

std::string FileUtil::GetFileName(std::string path) {
  return path.empty() ? std::string() : Poco::Path(path).getFileName();
}

bool FileUtil::CreateDirectory(const std::string& target, bool recursive) {
  return LogRefusal("Create directory fail. fl:[", target, [&] {
    if (!recursive) {
      if (IsFileExists(target) && S_ISDIR(StatusOf(target).st_mode)) {
        return false;
      }
      const std::string path = AsFile(target);
      Require(::mkdir(path.c_str(), 0777) == 0, path);
      return true;
    }
    MakeDirectories(target);
    return IsFileExists(target);
  });
}

bool FileUtil::TryCreateDirectory(const std::string& target) {
  try {
    MakeDirectories(target);
    return true;
  } catch (const Poco::Exception&) {
    return false;
  }
}

std::string FileUtil::GetDirectory(const std::string& target) {
  return Poco::Path(target).parent().toString();
}

bool FileUtil::SetWriteable(const std::string& target, bool enable) {
  return LogRefusal("Set Writable fail. file:[", target, [&] {
    constexpr mode_t kAllRights = S_IWUSR | S_IWGRP | S_IWOTH;
    const mode_t mode = StatusOf(target).st_mode & 07777;
    const std::string path = AsFile(target);
    Require(::chmod(path.c_str(), enable ? mode | S_IWUSR : mode & ~kAllRights) == 0, path);
    return IsWriteable(StatusOf(target)) == enable;
  });
}

bool FileUtil::CanWrite(const std::string& target) {
  return LogRefusal("Can Write fail. file:[", target,
                    [&] { return IsWriteable(StatusOf(target)); });
}

uint FileUtil::GetSize(const std::string& target) {
  return LogRefusal("Get fail size fail. file:[", target,
                    [&] { return static_cast<uint>(StatusOf(target).st_size); });
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
