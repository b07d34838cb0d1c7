// The bytes that docs/protocol.md shows are those that the client builds and reads.
#include <gtest/gtest.h>

#include <cstring>
#include <regex>

#include "support/fake_daemon.h"

namespace tmsc {
namespace {

using Frame = std::vector<byte>;

Frame ReadFrame(int transport, int unit) {
  Frame frame(TAMSEL_MAX_FRAME_LENGTH);
  const int length = tamsel_read_frame(transport, 1, unit, 3, 0x10, 2, frame.data());
  frame.resize(static_cast<std::size_t>(length));
  return frame;
}

/// The matches of `pattern` in the lines below a heading.
std::vector<std::smatch> Rows(const std::string& heading, const std::string& pattern) {
  static const std::string kDocument = test::ReadFile(TAMSEL_DOCS_DIR "/protocol.md");
  const std::size_t begin = kDocument.find("# " + heading + "\n");
  EXPECT_NE(begin, std::string::npos) << heading;
  const auto from = kDocument.begin() + static_cast<std::ptrdiff_t>(begin);
  const auto to = kDocument.begin() + static_cast<std::ptrdiff_t>(kDocument.find("\n#", begin));
  const std::regex regex(pattern);
  return {std::sregex_iterator(from, to, regex), std::sregex_iterator()};
}

/// A record from its table: what is not shown is zero.
template <typename Record>
Record Shown(const std::string& heading) {
  Record record{};
  for (const auto& row : Rows(heading, R"(\n\| (\d+) \|(?: (\d*) ?\|)? `([0-9A-F ]+)` \|)")) {
    const std::size_t offset = std::stoul(row[1]);
    EXPECT_TRUE(row[2].length() == 0 || std::stoul(row[2]) + 64 == offset) << row[0];
    const Frame part = FromHex(row[3]);
    std::memcpy(reinterpret_cast<byte*>(&record) + offset, part.data(), part.size());
  }
  return record;
}

void ExpectRegisters(int transport, int unit, const byte* answer, int length) {
  const Frame frame = ReadFrame(transport, unit);
  tamsel_answer decoded;
  tamsel_decode_answer(transport, frame.data(), frame.size(), answer,
                       static_cast<std::size_t>(length), &decoded);
  EXPECT_TRUE(decoded.count == 2 && decoded.values[0] == 4660 && decoded.values[1] == 65535);
}

/// Compares a request with the document's, and takes the registers out of the document's response.
template <typename Request>
void ExpectExample(const std::string& name, int address, const Request& built) {
  const auto shown = Shown<Request>(name + " request");
  EXPECT_EQ(std::memcmp(&shown, &built, sizeof(built)), 0) << name;
  const auto response = Shown<ResponseReceiveData>(name + " response");
  EXPECT_EQ(response.header.type, built.header.type);
  const tamsel_device_data* answer = tamsel_device_answer(&response, address);
  ExpectRegisters(built.header.type, address, answer->data, answer->length);
}

TEST(ProtocolDocument, TheExamples) {
  tamsel_tcpip_request tcpip;
  tamsel_begin_tcpip(&tcpip, 1);
  const Frame frame = ReadFrame(TAMSEL_TCPIP, 3);
  tamsel_add_tcpip_device(&tcpip, 3, "192.0.2.20", 502, 1000, frame.data(), frame.size());
  ExpectExample("TCP/IP", 3, tcpip);
  const auto code = [](int result) { return static_cast<byte>(result); };
  tamsel_rs485_request rs485;
  tamsel_begin_rs485(&rs485, 2, code(tamsel_baud_code(19200)));
  for (const auto& [address, unit] : {std::pair<int, int>{5, 5}, {6, 47}}) {
    const Frame rtu = ReadFrame(TAMSEL_RS485, unit);
    const SetPortParams line{code(address), code(tamsel_line_code("8E1")), 500, 0, 0, 0};
    tamsel_add_rs485_device(&rs485, &line, rtu.data(), rtu.size());
  }
  ExpectExample("RS485", 5, rs485);
}

TEST(ProtocolDocument, TheRtuFrameAndItsAnswer) {
  // As a line of their own, and explained in the rows of a table.
  for (const char* pattern : {R"(\n`([0-9A-F ]+)`\n)", R"(\n\| `([0-9A-F ]+)` \|)"}) {
    std::string digits;
    for (const auto& row : Rows("An RTU frame and its check sum", pattern)) {
      digits += row[1].str();
    }
    const Frame bytes = FromHex(digits), frame = ReadFrame(TAMSEL_RS485, 5);
    ASSERT_EQ(bytes.size(), frame.size() + 9) << digits;
    EXPECT_TRUE(std::equal(frame.begin(), frame.end(), bytes.begin())) << digits;
    ExpectRegisters(TAMSEL_RS485, 5, bytes.data() + frame.size(), 9);
  }
}

}  // namespace
}  // namespace tmsc
