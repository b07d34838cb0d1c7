#include "answer_reader.h"

#include <algorithm>

#include "modbus/pdu.h"
#include "modbus/rtu_frame.h"
#include "vlm_rs485.h"

namespace rs485 {

namespace {

// The shortest Modbus RTU frame: address, function and CRC.
constexpr std::size_t kShortestFrame = 4;

}  // namespace

AnswerReader::AnswerReader(const std::vector<unsigned char>& frame, unsigned char delimiter,
                           unsigned char after_delimiter, bool is_echoing)
    : frame_(frame),
      address_(frame.front()),
      function_(modbus::HasRightCrc(frame.data(), frame.size()) ? frame[1] : -1),
      delimiter_(delimiter),
      after_delimiter_(after_delimiter),
      is_echoing_(is_echoing) {}

bool AnswerReader::Add(unsigned char byte, bool is_damaged) {
  bytes_.push_back(byte);
  if (is_damaged) {
    damaged_end_ = bytes_.size();
  }
  if (IsTooLong() || TakeEcho() || MayBeEcho()) {
    return false;
  }
  if (delimiter_ != 0) {
    return EndsWithDelimiter();
  }
  if (TakeFrame(SearchEnd())) {
    return true;
  }
  DropStaleAnswer();
  return false;
}

bool AnswerReader::AddSilence() {
  if (delimiter_ != 0 || bytes_.empty() || IsTooLong()) {
    return false;
  }
  if (TakeFrame(bytes_.size())) {
    return true;
  }
  if (HasBegun() && !MayBeEcho()) {
    DropFramesOfOthers();
    return true;
  }
  has_heard_others_ = has_heard_others_ || !MayBeEcho();
  DropFirst(bytes_.size());
  return false;
}

bool AnswerReader::IsTooLong() const {
  return bytes_.size() > MAX_RECEIVE_DATA_LENGTH;
}

bool AnswerReader::HasBegun() const {
  return !bytes_.empty() && (delimiter_ != 0 || bytes_.front() == address_);
}

bool AnswerReader::IsIncomplete() const {
  for (std::size_t begin = 0; IsModbusRtu() && delimiter_ == 0 && begin < SearchEnd(); ++begin) {
    const std::size_t count = bytes_.size() - begin;
    const std::size_t length = modbus::RtuAnswerLength(bytes_.data() + begin, count);
    const bool is_short = length > 0 ? length > count : count < kShortestFrame;
    if (is_short && (IsOfDeviceAt(begin) || (bytes_.size() == 1 && HasBegun()))) {
      return true;
    }
  }
  return false;
}

bool AnswerReader::HasHeardOthersOnly() const {
  return !HasBegun() && (has_heard_others_ || !bytes_.empty());
}

/// Where a search for what the device sent ends. An answer that has begun may contain what looks
/// like a frame: only silence proves that it is noise in front of one.
std::size_t AnswerReader::SearchEnd() const {
  return HasBegun() ? 1 : bytes_.size();
}

/// Whether address and function there are those of the frame.
bool AnswerReader::IsOfDeviceAt(std::size_t begin) const {
  return IsModbusRtu() && begin + 1 < bytes_.size() && bytes_[begin] == address_ &&
         (bytes_[begin + 1] & ~modbus::kExceptionFlag) == function_;
}

/// Length of the Modbus RTU frame with the right CRC that begins there; 0: there is none.
std::size_t AnswerReader::RtuLengthAt(std::size_t begin) const {
  const unsigned char* const bytes = bytes_.data() + begin;
  const std::size_t count = bytes_.size() - begin;
  const std::size_t length = modbus::RtuAnswerLength(bytes, count);
  return length <= count && modbus::HasRightCrc(bytes, length) ? length : 0;
}

/// Whether a whole frame of the device may answer this very frame. Of reads the answer's length is
/// known: another one belongs to an earlier frame, or to another master's.
bool AnswerReader::IsAnswerToFrame(const std::vector<unsigned char>& answer) const {
  return !modbus::IsRead(function_) || answer[1] == (function_ | modbus::kExceptionFlag) ||
         modbus::CheckRtuAnswer(frame_, answer).is_good;
}

/// Whether a device may answer with the frame itself.
bool AnswerReader::MayEqualItsAnswer() const {
  const std::size_t length =
      IsModbusRtu() ? modbus::RtuAnswerLength(frame_.data(), frame_.size()) : 0;
  return length == 0 || (length == frame_.size() && IsAnswerToFrame(frame_));
}

/// Looks for the device's answer that begins before `search_end`, and takes off all around it.
bool AnswerReader::TakeFrame(std::size_t search_end) {
  for (std::size_t begin = 0; begin < search_end; ++begin) {
    // Within other bytes a right CRC may be chance: there the function has to fit, too.
    const bool is_probable = begin == 0 ? bytes_[0] == address_ : IsOfDeviceAt(begin);
    const std::size_t length = is_probable ? RtuLengthAt(begin) : 0;
    const auto frame = bytes_.begin() + static_cast<std::ptrdiff_t>(begin);
    if (length > 0 && IsAnswerToFrame({frame, frame + static_cast<std::ptrdiff_t>(length)})) {
      DropFirst(begin);
      bytes_.resize(length);
      return true;
    }
  }
  return false;
}

/// Drops the echo of the frame, and with it all that came before the device had its frame. True
/// when it has just come to its end.
bool AnswerReader::TakeEcho() {
  const bool is_there =
      (bytes_.size() == frame_.size() || (bytes_.size() > frame_.size() && !HasBegun())) &&
      std::equal(frame_.rbegin(), frame_.rend(), bytes_.rbegin());
  if (!is_there || has_heard_echo_ || (!is_echoing_ && MayEqualItsAnswer())) {
    return false;
  }
  has_heard_echo_ = true;
  has_heard_others_ = false;
  DropFirst(bytes_.size());
  return true;
}

/// Whether what has come may be the beginning of an echo that is still to come.
bool AnswerReader::MayBeEcho() const {
  return is_echoing_ && !has_heard_echo_ && bytes_.size() < frame_.size() &&
         std::equal(bytes_.begin(), bytes_.end(), frame_.begin());
}

/// Drops a whole frame of the device that answers another one.
void AnswerReader::DropStaleAnswer() {
  const std::size_t length = HasBegun() && modbus::IsRead(function_) ? RtuLengthAt(0) : 0;
  if (length > 0) {
    has_heard_others_ = true;
    DropFirst(length);
  }
}

void AnswerReader::DropFirst(std::size_t count) {
  bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(count));
  damaged_end_ -= std::min(damaged_end_, count);
}

/// Takes off the late frames of other devices behind a Modbus RTU answer that is not right itself.
void AnswerReader::DropFramesOfOthers() {
  for (std::size_t begin = 1; IsModbusRtu() && begin < bytes_.size(); ++begin) {
    if (bytes_[begin] != address_ && RtuLengthAt(begin) > 0) {
      bytes_.resize(begin);
    }
  }
}

/// Whether the last byte is the last one behind the first delimiter.
bool AnswerReader::EndsWithDelimiter() const {
  const auto delimiter = std::find(bytes_.begin(), bytes_.end(), delimiter_);
  return static_cast<std::size_t>(bytes_.end() - delimiter) == after_delimiter_ + 1;
}

}  // namespace rs485
