#ifndef RS485_ANSWER_READER_H_
#define RS485_ANSWER_READER_H_

#include <cstddef>
#include <vector>

namespace rs485 {

/// Finds the answer to one frame in the bytes that arrive after it. Knows neither line nor clock:
/// whoever feeds it says when the line was silent. So what it finds does not depend on the pieces
/// in which a port hands the bytes over. One thread at a time.
class AnswerReader {
 public:
  /// `frame`, one byte or more, is what the device was sent. With `delimiter` 0 the answer is a
  /// Modbus RTU frame or ends with silence; else it ends with that byte and `after_delimiter`
  /// further ones.
  AnswerReader(const std::vector<unsigned char>& frame, unsigned char delimiter,
               unsigned char after_delimiter);

  /// Takes the next byte. True when the answer is whole with it; then nothing more is added.
  bool Add(unsigned char byte, bool is_damaged);

  /// Says that the line was silent for long enough to end an answer. True when what came since the
  /// last silence is the answer; then nothing more is added.
  bool AddSilence();

  /// Whether something that no silence has ended yet has come, is longer than any answer, or may
  /// be the beginning of the answer.
  bool IsOpen() const { return !bytes_.empty(); }
  bool IsTooLong() const;
  bool HasBegun() const;

  /// The answer, once Add or AddSilence returned true, and whether the line damaged a byte of it.
  const std::vector<unsigned char>& Answer() const { return bytes_; }
  bool IsDamaged() const { return damaged_end_ > 0; }

  /// All that came as long as there is no answer: the first MAX_RECEIVE_DATA_LENGTH bytes at most.
  std::vector<unsigned char> Heard() const;

 private:
  bool IsModbusRtu() const { return function_ >= 0; }
  std::size_t RtuLengthAt(std::size_t begin) const;
  bool IsFrameOfDeviceAt(std::size_t begin) const;
  bool TakeFrame(std::size_t search_end);
  void DropFramesOfOthers();
  bool EndsWithDelimiter() const;

  const unsigned char address_;
  const int function_;  // of the frame; -1: it is no Modbus RTU frame
  const unsigned char delimiter_;
  const std::size_t after_delimiter_;
  std::vector<unsigned char> bytes_;   // since the last silence; in the end the answer
  std::size_t damaged_end_ = 0;        // behind the last damaged one of them
  std::vector<unsigned char> others_;  // what silences have shown to be no answer
};

}  // namespace rs485

#endif  // RS485_ANSWER_READER_H_
