#ifndef TAMSEL_HEALTH_READER_H_
#define TAMSEL_HEALTH_READER_H_

#include <optional>
#include <string>
#include <vector>

#include "tamsel.h"

namespace tmsc {

/// What the health file held at one moment, record by record: each is whole, but they need not be
/// of the same moment.
struct HealthSnapshot {
  tamsel_health_process process{};              // all zero: never written
  std::vector<tamsel_health_channel> channels;  // those that had a request
  std::vector<tamsel_health_device> devices;    // those that had an exchange, in file order
  int damaged_records = 0;                      // neither whole nor empty, left out
};

/// A snapshot, or why there is none.
struct HealthReading {
  std::optional<HealthSnapshot> snapshot;
  std::string error;  // for people to read; empty when there is a snapshot
};

/// Reads the health file at `path`. Neither the daemon nor another reader is held up, and nothing
/// is waited for: a FIFO or a folder is an error.
TAMSEL_API HealthReading ReadHealth(const std::string& path);

/// A cause in the field's words, "no answer in time"; for a cause that is not known its number.
TAMSEL_API std::string HealthCauseText(int cause);
/// The same as one word for programs, "no_answer"; never changed between versions.
TAMSEL_API std::string HealthCauseName(int cause);
/// The cause with what last_detail adds to it, "frame cut short after 7 bytes".
TAMSEL_API std::string HealthCauseText(int cause, int detail);
/// Whether an exchange that ended so counts as answered; a broadcast that was sent does, too.
inline bool IsHealthyCause(int cause) {
  return tamsel_health_is_answered(cause) != 0;
}

}  // namespace tmsc

#endif  // TAMSEL_HEALTH_READER_H_
