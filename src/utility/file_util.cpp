#include "utility/file_util.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Mutex.h>
#include <Poco/Path.h>
#include <Poco/ScopedLock.h>

#include "log/logger_log.h"
#include "utility/constant_string.h"

namespace tmsc {

namespace {

const std::string& kLogTag = ConstantString("FlUtil");

// Never destroyed: the log writer's thread may read the switch while the process ends.
Poco::Mutex& mutex_ = *new Poco::Mutex;
bool is_log_write_enable_ = true;  // guarded by mutex_

/// Runs a file operation. A refusal is logged, with the lead-in and the path, and gives the result
/// type's zero.
template <typename Operation>
auto LogRefusal(const std::string& lead_in, const std::string& path, Operation operation)
    -> decltype(operation()) {
  try {
    return operation();
  } catch (const Poco::Exception& refusal) {
    LoggerLog::Error(kLogTag, lead_in + path + "] [" + refusal.displayText() + "]");
    return {};
  }
}

}  // namespace

void FileUtil::Create() {
  Singleton<FileUtil>::Create();
  Poco::ScopedLock<Poco::Mutex> lock(mutex_);
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
  LoggerLog::Verbose(kLogTag, std::string("SetLogWriteEnable:") + (enable ? "1" : "0"));
  Poco::ScopedLock<Poco::Mutex> lock(mutex_);
  is_log_write_enable_ = enable;
}

bool FileUtil::IsLogWriteEnable() {
  Poco::ScopedLock<Poco::Mutex> lock(mutex_);
  return is_log_write_enable_;
}

}  // namespace tmsc
