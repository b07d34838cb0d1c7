#ifndef TAMSEL_HEALTH_ANSWER_END_H_
#define TAMSEL_HEALTH_ANSWER_END_H_

#include "communication_common.h"
#include "health/health_keeper.h"

namespace tmsc {

/// How an exchange ended in which these bytes came for the device as its whole answer: answered,
/// unless they say themselves that the device did not. Only health asks; the client gets them as
/// they came. Needs no memory; `entry` holds a frame that was sent.
HealthEnd EndOfRtuAnswer(const SendData& entry, const byte* answer, int length);
HealthEnd EndOfTcpAnswer(const SendData& entry, const byte* answer, int length);

}  // namespace tmsc

#endif  // TAMSEL_HEALTH_ANSWER_END_H_
