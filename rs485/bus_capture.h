#ifndef RS485_BUS_CAPTURE_H_
#define RS485_BUS_CAPTURE_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "capture_file.h"

namespace rs485 {

/// Records what one line carries: each frame sent, and what was heard in packets that make sense to
/// a reader who takes a packet for a frame. A whole Modbus RTU frame is one packet with the time of
/// its first byte, in however many pieces it came; what is no such frame is one up to the next
/// silence; errors of the line are packets of their own in front of it. One thread at a time.
class BusCapture {
 public:
  /// Throws when there can be no thread to write the file.
  explicit BusCapture(const std::string& path);

  const std::string& Path() const { return path_; }

  /// Microseconds since 1970.
  static std::int64_t Now();

  void AddSent(const std::vector<unsigned char>& frame, std::int64_t time);

  /// How the next characters arrive: the silence that separates what belongs together, and whether
  /// their error is one of parity or of framing, which the system does not tell.
  void SetLine(std::chrono::nanoseconds silence, bool has_parity);
  void AddHeard(unsigned char byte, bool is_damaged, std::int64_t time);

  /// Has what was recorded written.
  void EndCycle();

 private:
  void AddAllHeard();
  void AddNoise(std::size_t begin, std::size_t end);
  void AddPacket(std::size_t begin, std::size_t end);
  std::size_t FrameLengthAt(std::size_t begin) const;

  const std::string path_;
  CaptureFile file_;
  std::vector<unsigned char> sent_;  // the last frame
  std::int64_t silence_ = 0;         // microseconds
  bool has_parity_ = false;
  // Heard and not yet in a packet, character by character.
  std::vector<unsigned char> heard_;
  std::vector<bool> damaged_;
  std::vector<std::int64_t> times_;
};

}  // namespace rs485

#endif  // RS485_BUS_CAPTURE_H_
