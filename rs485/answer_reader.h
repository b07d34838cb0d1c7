#ifndef RS485_ANSWER_READER_H_
#define RS485_ANSWER_READER_H_

#include <cstddef>
#include <vector>

namespace rs485 {

/// Finds the answer to one frame in the bytes that arrive after it. Knows neither line nor clock:
/// whoever feeds it says when the line was silent. So what it finds does not depend on the pieces
/// in which a port hands the bytes over. One thread at a time.
///
/// What it finds is the device's own answer. Bytes of others, the frame itself where the port
/// echoes it, and a whole answer to another read (functions 1 to 4: a stale one) are none.
class AnswerReader {
 public:
  /// `frame`, one byte or more, is what the device was sent; it outlives the reader. With
  /// `delimiter` 0 the answer is a Modbus RTU frame or ends with silence; else it ends with that
  /// byte and `after_delimiter` further ones. `is_echoing`: the port is known to echo what it
  /// sends.
  AnswerReader(const std::vector<unsigned char>& frame, unsigned char delimiter,
               unsigned char after_delimiter, bool is_echoing);

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

  /// Whether a Modbus RTU answer has begun that is shorter than its own length.
  bool IsIncomplete() const;

  /// The answer, once Add or AddSilence returned true, and whether the line damaged a byte of it.
  const std::vector<unsigned char>& Answer() const { return bytes_; }
  bool IsDamaged() const { return damaged_end_ > 0; }

  /// As long as there is no answer: whether all that came was somebody else's.
  bool HasHeardOthersOnly() const;

  /// Whether the frame came back. An answer may be equal to its frame, as those to functions 5 and
  /// 6 are: such an echo is known for one only on a port that echoes.
  bool HasHeardEcho() const { return has_heard_echo_; }

 private:
  bool IsModbusRtu() const { return function_ >= 0; }
  std::size_t SearchEnd() const;
  bool IsOfDeviceAt(std::size_t begin) const;
  std::size_t RtuLengthAt(std::size_t begin) const;
  bool IsAnswerToFrame(const std::vector<unsigned char>& answer) const;
  bool MayEqualItsAnswer() const;
  bool TakeFrame(std::size_t search_end);
  bool TakeEcho();
  bool MayBeEcho() const;
  void DropStaleAnswer();
  void DropFramesOfOthers();
  void DropFirst(std::size_t count);
  bool EndsWithDelimiter() const;

  const std::vector<unsigned char>& frame_;
  const unsigned char address_;
  const int function_;  // of the frame; -1: it is no Modbus RTU frame
  const unsigned char delimiter_;
  const std::size_t after_delimiter_;
  const bool is_echoing_;
  std::vector<unsigned char> bytes_;  // since the last silence; in the end the answer
  std::size_t damaged_end_ = 0;       // behind the last damaged one of them
  bool has_heard_others_ = false;     // what was dropped as no answer
  bool has_heard_echo_ = false;
};

}  // namespace rs485

#endif  // RS485_ANSWER_READER_H_
