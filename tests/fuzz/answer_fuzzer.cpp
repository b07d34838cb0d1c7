// What a device sends behind a frame, through the readers of both transports.

#include "answer_reader.h"
#include "fuzz/input_file.h"
#include "modbus/rtu_frame.h"
#include "modbus/tcp_frame.h"
#include "vlm_rs485.h"

using tmsc::test::Require;

namespace {

/// As on a line: 0xFE comes damaged, and behind 0xFF it is silent. What is found must fit the
/// response, whatever came before it and however long it goes on.
void ReadFromLine(const modbus::Bytes& frame, const modbus::Bytes& bytes, unsigned char delimiter,
                  unsigned char after_delimiter, bool is_echoing) {
  rs485::AnswerReader reader(frame, delimiter, after_delimiter, is_echoing);
  bool is_whole = false;
  for (auto byte = bytes.begin(); byte != bytes.end() && !is_whole; ++byte) {
    is_whole = reader.Add(*byte, *byte == 0xFE) || (*byte == 0xFF && reader.AddSilence());
  }
  Require(reader.IsOpen() || !reader.IsIncomplete());
  Require(!is_whole || (!reader.Answer().empty() && !reader.IsTooLong()));
}

/// An answer to a read that counts as good has the values that were asked for.
void Check(const modbus::Bytes& frame, const modbus::AnswerCheck& check, std::size_t pdu) {
  Require(check.is_good == check.text.empty());
  if (check.is_good && !check.registers.empty()) {
    Require(check.registers.size() == static_cast<std::size_t>(modbus::WordAt(frame, pdu + 3)));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Delimiter, how many bytes follow it, how many more than one the frame has; frame and answer.
  if (size < 4 || size < 4U + data[2]) {
    return 0;
  }
  const std::uint8_t* const answer = data + 4 + data[2];
  const modbus::Bytes frame(data + 3, answer), bytes(answer, data + size);
  ReadFromLine(frame, bytes, data[0], data[1], false);
  ReadFromLine(frame, bytes, data[0], data[1], true);
  Check(frame, modbus::CheckRtuAnswer(frame, bytes), 1);
  Check(frame, modbus::CheckTcpAnswer(frame, bytes), modbus::kMbapLength);
  return 0;
}
