#include "health/health_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
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

/// The header of a health file, of whatever layout; none: it has no whole one.
std::optional<tamsel_health_header> ReadHeader(int file) {
  tamsel_health_header header{};
  const bool is_one =
      ::pread(file, &header, sizeof(header), 0) == static_cast<ssize_t>(sizeof(header)) &&
      std::memcmp(header.magic, TAMSEL_HEALTH_MAGIC, sizeof(header.magic)) == 0;
  return is_one ? std::optional(header) : std::nullopt;
}

bool HasRightHeader(int file) {
  const tamsel_health_header right = MakeHeader();
  const auto header = ReadHeader(file);
  return header && std::memcmp(&*header, &right, sizeof(right)) == 0;
}

bool IsRightLayout(const tamsel_health_header& header) {
  const tamsel_health_header right = MakeHeader();
  return header.version == right.version && header.byte_order == right.byte_order &&
         header.file_size == right.file_size;
}

/// Renames a health file of another version, for a program that knows it, and never onto another
/// file. Returns the new name; empty, with errno, when it cannot be.
std::string MoveAside(const std::string& path, std::uint32_t version) {
  constexpr int kMostNames = 9;
  std::string name = path + ".layout-" + std::to_string(version);
  for (int number = 2; FileUtil::IsFileExists(name); ++number) {
    if (number > kMostNames) {
      errno = EEXIST;
      return {};
    }
    name = path + ".layout-" + std::to_string(version) + "-" + std::to_string(number);
  }
  return ::rename(path.c_str(), name.c_str()) == 0 ? name : std::string();
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

Descriptor HealthFile::OpenNamed() const {
  return Descriptor(::open(path_.c_str(), kOpenFlags | O_CREAT, 0644));
}

/// What keeps an opened file from being this daemon's alone; empty: it is.
std::string HealthFile::Claim(const Descriptor& file) const {
  if (!file.IsOpen()) {
    return ErrorText();
  }
  if (IsSameFile(file.Get(), file_.Get())) {
    return {};
  }
  if (std::string obstacle = FindObstacle(file.Get()); !obstacle.empty()) {
    return obstacle;
  }
  // Keeps a second daemon away; the system gives the lock back with the last descriptor.
  if (::flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
    return errno == EWOULDBLOCK ? "locked by another program" : ErrorText();
  }
  return {};
}

std::string HealthFile::Open(std::string& moved_to) {
  FileUtil::TryCreateDirectory(FileUtil::GetDirectory(path_));  // the open tells
  Descriptor file = OpenNamed();
  std::string obstacle = Claim(file);
  const auto header = obstacle.empty() ? ReadHeader(file.Get()) : std::nullopt;
  if (header && !IsRightLayout(*header)) {
    moved_to = MoveAside(path_, header->version);
    if (moved_to.empty()) {
      return "of another layout, and cannot be moved aside: " + ErrorText();
    }
    file = OpenNamed();
    obstacle = Claim(file);
  }
  if (!obstacle.empty()) {
    return obstacle;
  }
  if (!IsSameFile(file.Get(), file_.Get())) {
    is_in_memory_ = false;
    if (::dup3(file.Get(), file_.Get(), O_CLOEXEC) < 0) {
      return ErrorText();
    }
  }
  if (!ReadHeader(file_.Get())) {
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
  // Records that were never written read as zeros and cost no memory. The size first: a reader
  // never meets a health file that is cut short.
  return ::ftruncate(file_.Get(), sizeof(tamsel_health_file)) == 0 &&
         Write(0, &header, sizeof(header));
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
