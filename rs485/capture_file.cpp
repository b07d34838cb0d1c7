#include "capture_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>

namespace rs485 {

namespace {

constexpr std::size_t kMostQueued = 512 * 1024;         // bytes
constexpr off_t kMostInFile = off_t{16} * 1024 * 1024;  // bytes

// The pcap format, in this machine's byte order; its reader sees which one that is.
struct FileHeader {
  std::uint32_t magic = 0xa1b2c3d4;  // times in microseconds
  std::uint16_t version_major = 2;
  std::uint16_t version_minor = 4;
  std::uint32_t time_zone = 0;
  std::uint32_t accuracy = 0;
  std::uint32_t longest_packet = 65535;
  std::uint32_t link_type = 250;  // RTAC_SERIAL
};
struct PacketHeader {
  std::uint32_t seconds;
  std::uint32_t microseconds;
  std::uint32_t captured;
  std::uint32_t length;
};
static_assert(sizeof(FileHeader) == 24 && sizeof(PacketHeader) == 16);

template <typename Header>
std::string_view BytesOf(const Header& header) {
  return {reinterpret_cast<const char*>(&header), sizeof(header)};
}

// What the link type has in front of the data: the time once more, high bytes first.
constexpr std::size_t kLineHeaderSize = 12;

void AppendBigEndian(std::string& text, std::uint32_t value) {
  for (const int shift : {24, 16, 8, 0}) {
    text.push_back(static_cast<char>(value >> shift & 0xff));
  }
}

/// Where packets go. May hang in every operation as long as its file system does.
class Target {
 public:
  explicit Target(std::string path) : path_(std::move(path)) {}

  /// False when packets are lost: the file cannot be written. Without its folder none is wanted.
  bool Write(const std::string& packets) {
    if (!IsInPlace() || size_ + static_cast<off_t>(packets.size()) > kMostInFile) {
      Begin();
    }
    if (descriptor_ < 0) {
      return errno == ENOENT;
    }
    const std::string text = size_ == 0 ? std::string(BytesOf(FileHeader{})) + packets : packets;
    if (::pwrite(descriptor_, text.data(), text.size(), size_) !=
        static_cast<ssize_t>(text.size())) {
      // The next packets take the place of these, of which a part may be there.
      [[maybe_unused]] const int ignored = ::ftruncate(descriptor_, size_);
      return false;
    }
    size_ += static_cast<off_t>(text.size());
    return true;
  }

  void Close() {
    if (descriptor_ >= 0) {
      ::close(std::exchange(descriptor_, -1));
    }
  }

 private:
  /// Whether the open file is still the one of that name.
  bool IsInPlace() const {
    struct stat own {};
    struct stat there {};
    return descriptor_ >= 0 && ::fstat(descriptor_, &own) == 0 &&
           ::lstat(path_.c_str(), &there) == 0 && own.st_dev == there.st_dev &&
           own.st_ino == there.st_ino;
  }

  void Begin() {
    Close();
    size_ = 0;
    const std::string older = path_ + ".1";
    Create();
    if (descriptor_ < 0 && errno == EEXIST) {
      if (MayReplace(path_) && MayReplace(older) &&
          std::rename(path_.c_str(), older.c_str()) == 0) {
        Create();
      } else {
        errno = EEXIST;
      }
    }
  }

  void Create() {
    descriptor_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640);
  }

  /// Whether nothing, or nothing but an earlier capture, has that name. Nothing else is opened: to
  /// open some devices does something.
  static bool MayReplace(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
      return errno == ENOENT;
    }
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1 || status.st_size == 0) {
      return S_ISREG(status.st_mode) && status.st_nlink == 1;
    }
    const int file = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    char begin[sizeof(FileHeader)];
    const bool is_capture = file >= 0 && ::read(file, begin, sizeof(begin)) == sizeof(begin) &&
                            BytesOf(FileHeader{}) == std::string_view(begin, sizeof(begin));
    if (file >= 0) {
      ::close(file);
    }
    return is_capture;
  }

  const std::string path_;
  int descriptor_ = -1;
  off_t size_ = 0;
};

}  // namespace

struct CaptureFile::Queue {
  std::mutex mutex;  // guards all that follows; never held in an operation on the file
  std::condition_variable is_due_condition;
  std::string packets;
  bool is_due = false;
  bool is_lost = false;
  bool is_ended = false;

  void HaveWritten() {
    is_due = true;
    is_due_condition.notify_one();
  }

  void Run(Target target) {
    std::string taken;
    taken.reserve(kMostQueued);
    std::unique_lock<std::mutex> lock(mutex);
    while (!is_ended || !packets.empty()) {
      is_due_condition.wait(lock, [&] { return is_due || is_ended; });
      is_due = false;
      taken.swap(packets);
      lock.unlock();
      const bool is_good = taken.empty() || target.Write(taken);
      taken.clear();
      lock.lock();
      is_lost = is_lost || !is_good;
    }
    target.Close();
  }
};

CaptureFile::CaptureFile(const std::string& path) : queue_(std::make_shared<Queue>()) {
  queue_->packets.reserve(kMostQueued);
  // Signals are for the process's own threads.
  sigset_t all;
  sigset_t before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    std::thread([queue = queue_, path] { queue->Run(Target(path)); }).detach();
  } catch (...) {
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    throw;
  }
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

CaptureFile::~CaptureFile() {
  const std::lock_guard<std::mutex> lock(queue_->mutex);
  queue_->is_ended = true;
  queue_->is_due_condition.notify_one();
}

void CaptureFile::Add(Event event, std::int64_t time, const unsigned char* bytes,
                      std::size_t count) {
  const std::lock_guard<std::mutex> lock(queue_->mutex);
  const std::size_t size = sizeof(PacketHeader) + kLineHeaderSize;
  // With room for the packet that tells of lost ones.
  if (queue_->packets.size() + 2 * size + count > kMostQueued) {
    queue_->is_lost = true;
    return;
  }
  if (std::exchange(queue_->is_lost, false)) {
    Append(Event::kLost, time, nullptr, 0);
  }
  Append(event, time, bytes, count);
  if (queue_->packets.size() > kMostQueued / 2) {
    queue_->HaveWritten();
  }
}

void CaptureFile::Append(Event event, std::int64_t time, const unsigned char* bytes,
                         std::size_t count) {
  constexpr std::int64_t kSecond = 1000000;
  const auto length = static_cast<std::uint32_t>(kLineHeaderSize + count);
  const PacketHeader header = {static_cast<std::uint32_t>(time / kSecond),
                               static_cast<std::uint32_t>(time % kSecond), length, length};
  std::string& packets = queue_->packets;
  packets.append(BytesOf(header));
  AppendBigEndian(packets, header.seconds);
  AppendBigEndian(packets, header.microseconds);
  packets.push_back(static_cast<char>(event));
  packets.append(3, '\0');  // control lines, which are not looked at; reserved
  if (count > 0) {
    packets.append(reinterpret_cast<const char*>(bytes), count);
  }
}

void CaptureFile::Write() {
  const std::lock_guard<std::mutex> lock(queue_->mutex);
  if (!queue_->packets.empty()) {
    queue_->HaveWritten();
  }
}

}  // namespace rs485
