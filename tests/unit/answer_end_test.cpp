#include "health/answer_end.h"

#include <gtest/gtest.h>

#include "modbus/rtu_frame.h"
#include "support/fake_daemon.h"

namespace tmsc::test {
namespace {

struct AnswerRow {
  const char* what;
  std::vector<byte> frame;
  std::vector<byte> answer;
  int cause;
  int detail = 0;
};

void Expect(HealthEnd (*end_of)(const SendData&, const byte*, int), const AnswerRow& row) {
  SendData entry{};
  SetFrame(entry, row.frame.data(), static_cast<int>(row.frame.size()));
  const HealthEnd end = end_of(entry, row.answer.data(), static_cast<int>(row.answer.size()));
  EXPECT_EQ(end.cause, row.cause) << row.what;
  EXPECT_EQ(end.detail, row.detail) << row.what;
}

TEST(AnswerEnd, WhatIsNoAnswerOfTheDeviceSaysSoItself) {
  const std::vector<byte> read = FromHex("0007 0000 0006 05 03 0010 0001");
  for (const AnswerRow& row : std::initializer_list<AnswerRow>{
           {"values", read, FromHex("0007 0000 0005 05 03 02 1234"), TAMSEL_CAUSE_ANSWERED},
           {"refusal", read, FromHex("0007 0000 0003 05 83 02"), TAMSEL_CAUSE_ANSWERED},
           {"no path", read, FromHex("0007 0000 0003 05 83 0A"), TAMSEL_CAUSE_GATEWAY_NO_ANSWER,
            10},
           {"no target", read, FromHex("0007 0000 0003 05 83 0B"), TAMSEL_CAUSE_GATEWAY_NO_ANSWER,
            11},
           {"no target, unit 0", read, FromHex("0007 0000 0003 00 83 0B"),
            TAMSEL_CAUSE_GATEWAY_NO_ANSWER, 11},
           {"values 0B", read, FromHex("0007 0000 0003 05 03 0B"), TAMSEL_CAUSE_ANSWERED},
           {"exception of another function", read, FromHex("0007 0000 0003 05 84 0B"),
            TAMSEL_CAUSE_ANSWERED},
           {"no transaction repeated", read, FromHex("0000 0000 0005 05 03 02 1234"),
            TAMSEL_CAUSE_ANSWERED},
           {"its exception", read, FromHex("0000 0000 0003 05 83 0B"),
            TAMSEL_CAUSE_GATEWAY_NO_ANSWER, 11},
           {"no unit repeated", read, FromHex("0007 0000 0005 FF 03 02 1234"),
            TAMSEL_CAUSE_ANSWERED},
           {"another unit's", read, FromHex("0008 0000 0005 06 03 02 1234"),
            TAMSEL_CAUSE_NOT_ITS_ANSWER},
           {"another function's", read, FromHex("0008 0000 0005 05 04 02 1234"),
            TAMSEL_CAUSE_NOT_ITS_ANSWER},
           {"another's head", read, FromHex("0008 0000 0000"), TAMSEL_CAUSE_NOT_ITS_ANSWER},
           {"its head", read, FromHex("0007 0000 0000"), TAMSEL_CAUSE_ANSWERED},
           {"no Modbus/TCP", FromHex("0007 0000 0009 05 03 0010 0001"),
            FromHex("0008 0000 0003 06 83 0B"), TAMSEL_CAUSE_ANSWERED},
           {"one byte", FromHex("41"), FromHex("0008 0000 0003 06 83 0B"),
            TAMSEL_CAUSE_ANSWERED}}) {
    Expect(EndOfTcpAnswer, row);
  }
  const std::vector<byte> rtu = FromHex("05 03 0010 0002 C44A");
  for (const AnswerRow& row : std::initializer_list<AnswerRow>{
           {"values", rtu, FromHex("05 03 04 1234 FFFF FAF5"), TAMSEL_CAUSE_ANSWERED},
           {"a bit", rtu, FromHex("05 03 04 1235 FFFF FAF5"), TAMSEL_CAUSE_WRONG_CHECK_SUM},
           {"cut", rtu, FromHex("05 03"), TAMSEL_CAUSE_WRONG_CHECK_SUM},
           {"refusal", rtu, FromHex("05 83 02 8130"), TAMSEL_CAUSE_ANSWERED},
           {"no target", rtu, modbus::RtuFrame(5, {0x83, 11}), TAMSEL_CAUSE_GATEWAY_NO_ANSWER, 11},
           {"another's", rtu, modbus::RtuFrame(6, {3, 2, 0, 0}), TAMSEL_CAUSE_NOT_ITS_ANSWER},
           {"another function's", rtu, modbus::RtuFrame(5, {4, 2, 0, 0}),
            TAMSEL_CAUSE_NOT_ITS_ANSWER},
           {"no function", rtu, modbus::RtuFrame(5, {}), TAMSEL_CAUSE_NOT_ITS_ANSWER},
           {"no Modbus RTU", FromHex("05 03 0010 0002 C44B"), FromHex("41"),
            TAMSEL_CAUSE_ANSWERED}}) {
    Expect(EndOfRtuAnswer, row);
  }
}

}  // namespace
}  // namespace tmsc::test
