#include "health/answer_end.h"

#include <cstddef>

#include "modbus/rtu_frame.h"
#include "modbus/tcp_frame.h"

namespace tmsc {

namespace {

/// `exception`: of an answer by which a gateway says so.
HealthEnd EndOf(modbus::AnswerOrigin origin, int exception) {
  switch (origin) {
    case modbus::AnswerOrigin::kGateway:
      return {TAMSEL_CAUSE_GATEWAY_NO_ANSWER, exception};
    case modbus::AnswerOrigin::kDamaged:
      return {TAMSEL_CAUSE_WRONG_CHECK_SUM};
    case modbus::AnswerOrigin::kElsewhere:
      return {TAMSEL_CAUSE_NOT_ITS_ANSWER};
    case modbus::AnswerOrigin::kDevice:
      break;
  }
  return {TAMSEL_CAUSE_ANSWERED};
}

}  // namespace

HealthEnd EndOfRtuAnswer(const SendData& entry, const byte* answer, int length) {
  constexpr int kException = 2;
  const auto origin =
      modbus::OriginOfRtuAnswer(FrameOf(entry), static_cast<std::size_t>(FrameLengthOf(entry)),
                                answer, static_cast<std::size_t>(length));
  return EndOf(origin, length > kException ? answer[kException] : 0);
}

HealthEnd EndOfTcpAnswer(const SendData& entry, const byte* answer, int length) {
  constexpr int kException = modbus::kMbapLength + 1;
  const auto origin =
      modbus::OriginOfTcpAnswer(FrameOf(entry), static_cast<std::size_t>(FrameLengthOf(entry)),
                                answer, static_cast<std::size_t>(length));
  return EndOf(origin, length > kException ? answer[kException] : 0);
}

}  // namespace tmsc
