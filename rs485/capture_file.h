#ifndef RS485_CAPTURE_FILE_H_
#define RS485_CAPTURE_FILE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace rs485 {

/// A pcap file of what one serial line carried (link type RTAC_SERIAL), written by a thread of its
/// own: whatever the file system does, who adds to it waits for nothing. It is written as long as
/// its folder is there; after 16 MiB, and when there is one already, it becomes FILE.1 and a new
/// one begins. One thread at a time.
class CaptureFile {
 public:
  /// Kinds of packets of the link type.
  enum class Event : unsigned char {
    kSent = 0x01,
    kHeard = 0x02,
    kLost = 0x05,
    kFramingError = 0x07,
    kParityError = 0x08,
    kBreak = 0x09,
  };

  /// Throws what std::thread does when there can be no thread.
  explicit CaptureFile(const std::string& path);
  /// Waits for nothing: what is queued is written as long as the process lives.
  ~CaptureFile();
  CaptureFile(const CaptureFile&) = delete;
  CaptureFile& operator=(const CaptureFile&) = delete;

  /// Queues a packet of that moment, microseconds since 1970. One for which there is no room is
  /// left out; a packet kLost then stands before the next.
  void Add(Event event, std::int64_t time, const unsigned char* bytes, std::size_t count);

  /// Has what is queued written.
  void Write();

 private:
  struct Queue;

  void Append(Event event, std::int64_t time, const unsigned char* bytes, std::size_t count);

  const std::shared_ptr<Queue> queue_;  // the thread's, too
};

}  // namespace rs485

#endif  // RS485_CAPTURE_FILE_H_
