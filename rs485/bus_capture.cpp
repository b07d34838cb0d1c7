#include "bus_capture.h"

#include <algorithm>
#include <ctime>

#include "modbus/rtu_frame.h"

namespace rs485 {

namespace {

// More than any frame, so that few are cut on a line that is never silent.
constexpr std::size_t kMostHeard = 4096;

/// Length of the request that begins there, by its function; 0: the function does not tell.
std::size_t RtuRequestLength(const unsigned char* bytes, std::size_t count) {
  constexpr std::size_t kShort = 8;        // two words behind the function
  constexpr std::size_t kByteCountAt = 6;  // behind them, in what writes several
  if (count < kShort) {
    return 0;
  }
  switch (bytes[1]) {
    case modbus::kWriteMultipleCoils:
    case modbus::kWriteMultipleRegisters:
      return kShort + 1 + bytes[kByteCountAt];
    default:
      return bytes[1] >= modbus::kReadCoils && bytes[1] <= modbus::kWriteSingleRegister ? kShort
                                                                                        : 0;
  }
}

}  // namespace

BusCapture::BusCapture(const std::string& path) : path_(path), file_(path) {
  heard_.reserve(kMostHeard);
  damaged_.reserve(kMostHeard);
  times_.reserve(kMostHeard);
  sent_.reserve(kMostHeard);
}

std::int64_t BusCapture::Now() {
  // Not std::chrono's: on 32 bit that ends in 2038.
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return std::int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

void BusCapture::AddSent(const std::vector<unsigned char>& frame, std::int64_t time) {
  AddAllHeard();
  sent_ = frame;
  file_.Add(CaptureFile::Event::kSent, time, frame.data(), frame.size());
}

void BusCapture::SetLine(std::chrono::nanoseconds silence, bool has_parity) {
  silence_ = std::chrono::duration_cast<std::chrono::microseconds>(silence).count();
  has_parity_ = has_parity;
}

void BusCapture::AddHeard(unsigned char byte, bool is_damaged, std::int64_t time) {
  if (heard_.size() == kMostHeard) {
    AddAllHeard();
  }
  heard_.push_back(byte);
  damaged_.push_back(is_damaged);
  times_.push_back(time);
}

void BusCapture::EndCycle() {
  AddAllHeard();
  file_.Write();
}

void BusCapture::AddAllHeard() {
  std::size_t noise = 0;  // where what is no frame began
  std::size_t at = 0;
  while (at < heard_.size()) {
    const std::size_t length = FrameLengthAt(at);
    if (length == 0) {
      ++at;
      continue;
    }
    AddNoise(noise, at);
    AddPacket(at, at + length);
    at += length;
    noise = at;
  }
  AddNoise(noise, at);
  heard_.clear();
  damaged_.clear();
  times_.clear();
}

/// One packet for each piece between two silences.
void BusCapture::AddNoise(std::size_t begin, std::size_t end) {
  for (std::size_t at = begin + 1; at < end; ++at) {
    if (times_[at] - times_[at - 1] >= silence_) {
      AddPacket(begin, at);
      begin = at;
    }
  }
  if (begin < end) {
    AddPacket(begin, end);
  }
}

void BusCapture::AddPacket(std::size_t begin, std::size_t end) {
  for (std::size_t at = begin; at < end; ++at) {
    // One packet for errors in a row.
    if (damaged_[at] && (at == begin || !damaged_[at - 1])) {
      const CaptureFile::Event error = heard_[at] == 0 ? CaptureFile::Event::kBreak
                                       : has_parity_   ? CaptureFile::Event::kParityError
                                                       : CaptureFile::Event::kFramingError;
      file_.Add(error, times_[at], nullptr, 0);
    }
  }
  file_.Add(CaptureFile::Event::kHeard, times_[begin], heard_.data() + begin, end - begin);
}

/// Length of the frame that begins there: the last one sent, heard as an echo, or one of Modbus RTU
/// with the right CRC, an answer or, of a second master, a request. 0: there is none.
std::size_t BusCapture::FrameLengthAt(std::size_t begin) const {
  const unsigned char* const bytes = heard_.data() + begin;
  const std::size_t count = heard_.size() - begin;
  if (!sent_.empty() && sent_.size() <= count && std::equal(sent_.begin(), sent_.end(), bytes)) {
    return sent_.size();
  }
  for (const std::size_t length :
       {modbus::RtuAnswerLength(bytes, count), RtuRequestLength(bytes, count)}) {
    if (length > 0 && length <= count && modbus::HasRightCrc(bytes, length)) {
      return length;
    }
  }
  return 0;
}

}  // namespace rs485
