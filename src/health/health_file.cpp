#include "health/health_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>
#include <vector>

#include "tamsel_health.h"
#include "utility/file_util.h"
#include "utility/memory_file_system.h"

namespace tmsc {

namespace {

constexpr int kOpenFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

std::string ErrorText() {
  return std::generic_category().message(errno);
}

tamsel_health_header MakeHeader() {
  tamsel_health_header header{};
  std::memcpy(header.magic, TAMSEL_HEALTH_MAGIC, sizeof(header.magic));
  header.version = TAMSEL_HEALTH_VERSION;
  header.byte_order = TAMSEL_HEALTH_BYTE_ORDER;
  header.file_size = sizeof(tamsel_health_file);
  return header;
}

bool HasRightHeader(int file) {
  const tamsel_health_header right = MakeHeader();
  tamsel_health_header header{};
  return ::pread(file, &header, sizeof(header), 0) == static_cast<ssize_t>(sizeof(header)) &&
         std::memcmp(&header, &right, sizeof(header)) == 0;
}

/// Whether the file is a health file, of whatever version, or what the end of the power may have
/// left of one: no more than its begin, or only zeros.
bool MayBeTakenOver(int file) {
  std::vector<char> begin(sizeof(tamsel_health_file) + 1);
  const ssize_t count = ::pread(file, begin.data(), begin.size(), 0);
  if (count < 0) {
    return false;
  }
  const auto size = static_cast<std::size_t>(count);
  const std::size_t compared = std::min(size, sizeof(tamsel_health_header::magic));
  return std::memcmp(begin.data(), TAMSEL_HEALTH_MAGIC, compared) == 0 ||
         (size < begin.size() &&
          std::all_of(begin.data(), begin.data() + size, [](char byte) { return byte == 0; }));
}

/// What keeps an open file from being a health file, for people to read; empty: nothing. A link
/// from elsewhere would let somebody choose which file is written.
std::string FindObstacle(int file) {
  struct stat status {};
  if (::fstat(file, &status) != 0) {
    return ErrorText();
  }
  if (!S_ISREG(status.st_mode) || status.st_nlink > 1) {
    return "no regular file of its own";
  }
  return MayBeTakenOver(file) ? std::string() : "a file that is no health file";
}

bool IsSame(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

bool IsSameFile(int file, int other_file) {
  struct stat status {};
  struct stat other {};
  return ::fstat(file, &status) == 0 && ::fstat(other_file, &other) == 0 && IsSame(status, other);
}

}  // namespace

HealthFile::HealthFile(std::string path)
    : path_(std::move(path)), file_(::open("/dev/null", O_RDWR | O_CLOEXEC)) {}

std::string HealthFile::Open() {
  FileUtil::TryCreateDirectory(FileUtil::GetDirectory(path_));  // the open tells
  Descriptor file(::open(path_.c_str(), kOpenFlags | O_CREAT, 0644));
  if (!file.IsOpen()) {
    return ErrorText();
  }
  if (!IsSameFile(file.Get(), file_.Get())) {
    if (std::string obstacle = FindObstacle(file.Get()); !obstacle.empty()) {
      return obstacle;
    }
    // Keeps a second daemon away; the system gives the lock back with the last descriptor.
    if (::flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
      return errno == EWOULDBLOCK ? "locked by another program" : ErrorText();
    }
    is_in_memory_ = false;
    if (::dup3(file.Get(), file_.Get(), O_CLOEXEC) < 0) {
      return ErrorText();
    }
  }
  if (!HasRightHeader(file_.Get())) {
    static_cast<void>(::ftruncate(file_.Get(), 0) == 0);
  }
  is_in_memory_ = IsOnMemoryFileSystem(file_.Get());
  return WriteHeader() ? std::string() : ErrorText();
}

bool HealthFile::IsIntact() const {
  struct stat named {};
  struct stat open {};
  return ::stat(path_.c_str(), &named) == 0 && ::fstat(file_.Get(), &open) == 0 &&
         IsSame(named, open) && open.st_size == static_cast<off_t>(sizeof(tamsel_health_file)) &&
         HasRightHeader(file_.Get());
}

bool HealthFile::WriteHeader() {
  const tamsel_health_header header = MakeHeader();
  // Records that were never written read as zeros and cost no memory.
  return Write(0, &header, sizeof(header)) &&
         ::ftruncate(file_.Get(), sizeof(tamsel_health_file)) == 0;
}

bool HealthFile::Write(std::size_t offset, const void* record, std::size_t size) const {
  return ::pwrite(file_.Get(), record, size, static_cast<off_t>(offset)) ==
         static_cast<ssize_t>(size);
}

void HealthFile::Read(std::size_t offset, void* record, std::size_t size) const {
  const ssize_t count = ::pread(file_.Get(), record, size, static_cast<off_t>(offset));
  const std::size_t taken = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
  std::memset(static_cast<char*>(record) + taken, 0, size - taken);
}

}  // namespace tmsc
