#include "answer_reader.h"

#include <algorithm>

#include "modbus/pdu.h"
#include "modbus/rtu_frame.h"
#include "vlm_rs485.h"

namespace rs485 {

AnswerReader::AnswerReader(const std::vector<unsigned char>& frame, unsigned char delimiter,
                           unsigned char after_delimiter)
    : address_(frame.front()),
      function_(modbus::HasRightCrc(frame.data(), frame.size()) ? frame[1] : -1),
      delimiter_(delimiter),
      after_delimiter_(after_delimiter) {}

bool AnswerReader::Add(unsigned char byte, bool is_damaged) {
  bytes_.push_back(byte);
  if (is_damaged) {
    damaged_end_ = bytes_.size();
  }
  if (IsTooLong()) {
    return false;
  }
  if (delimiter_ != 0) {
    return EndsWithDelimiter();
  }
  // An answer that has begun may contain what looks like a frame: only silence proves that it is
  // noise in front of one.
  return TakeFrame(HasBegun() ? 1 : bytes_.size());
}

bool AnswerReader::AddSilence() {
  if (delimiter_ != 0 || bytes_.empty() || IsTooLong()) {
    return false;
  }
  if (TakeFrame(bytes_.size())) {
    return true;
  }
  if (HasBegun()) {
    DropFramesOfOthers();
    return true;
  }
  others_ = Heard();
  bytes_.clear();
  damaged_end_ = 0;
  return false;
}

bool AnswerReader::IsTooLong() const {
  return bytes_.size() > MAX_RECEIVE_DATA_LENGTH;
}

bool AnswerReader::HasBegun() const {
  return !bytes_.empty() && (delimiter_ != 0 || bytes_.front() == address_);
}

std::vector<unsigned char> AnswerReader::Heard() const {
  std::vector<unsigned char> heard = others_;
  heard.insert(heard.end(), bytes_.begin(), bytes_.end());
  heard.resize(std::min<std::size_t>(heard.size(), MAX_RECEIVE_DATA_LENGTH));
  return heard;
}

/// Length of the Modbus RTU frame with the right CRC that begins there; 0: there is none.
std::size_t AnswerReader::RtuLengthAt(std::size_t begin) const {
  const unsigned char* const bytes = bytes_.data() + begin;
  const std::size_t count = bytes_.size() - begin;
  const std::size_t length = modbus::RtuAnswerLength(bytes, count);
  return length <= count && modbus::HasRightCrc(bytes, length) ? length : 0;
}

bool AnswerReader::IsFrameOfDeviceAt(std::size_t begin) const {
  if (bytes_[begin] != address_) {
    return false;
  }
  // Within other bytes a right CRC may be chance: there it has to be an answer to this very frame.
  const bool is_probable =
      begin == 0 || (IsModbusRtu() && begin + 1 < bytes_.size() &&
                     (bytes_[begin + 1] & ~modbus::kExceptionFlag) == function_);
  return is_probable && RtuLengthAt(begin) > 0;
}

/// Looks for a frame of the device that begins before `search_end`, and takes off all around it.
bool AnswerReader::TakeFrame(std::size_t search_end) {
  for (std::size_t begin = 0; begin < search_end; ++begin) {
    if (IsFrameOfDeviceAt(begin)) {
      const auto frame = bytes_.begin() + static_cast<std::ptrdiff_t>(begin);
      bytes_ = {frame, frame + static_cast<std::ptrdiff_t>(RtuLengthAt(begin))};
      damaged_end_ -= std::min(damaged_end_, begin);
      return true;
    }
  }
  return false;
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
