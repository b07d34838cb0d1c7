#ifndef TAMSEL_FIELD_SIMULATOR_ANSWER_H_
#define TAMSEL_FIELD_SIMULATOR_ANSWER_H_

#include <chrono>
#include <vector>

#include "modbus/crc16.h"

namespace tmsc::simulator {

/// The bytes of one frame or of a part of one.
using modbus::Bytes;

/// Bytes that go out together.
struct Piece {
  Bytes bytes;
  /// How long the device waits before this piece, counted from the piece before it.
  std::chrono::nanoseconds pause{0};
  /// A stray piece holds up nothing: answers to later requests may overtake it.
  bool is_stray = false;
  /// A serial line delivers each of these bytes with a parity error.
  bool is_damaged = false;
};

/// What becomes of the connection once every piece is out.
enum class Ending {
  kKeepOpen,
  kClose,
  kReset,
  kEndless,  ///< Filling bytes follow as fast as the peer reads, until it closes.
};

/// Everything a device sends for one request, and when.
struct Answer {
  std::vector<Piece> pieces;
  Ending ending = Ending::kKeepOpen;
};

}  // namespace tmsc::simulator

#endif  // TAMSEL_FIELD_SIMULATOR_ANSWER_H_
