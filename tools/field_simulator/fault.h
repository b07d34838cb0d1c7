#ifndef TAMSEL_FIELD_SIMULATOR_FAULT_H_
#define TAMSEL_FIELD_SIMULATOR_FAULT_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "answer.h"
#include "modbus_frame.h"

namespace tmsc::simulator {

/// What a device does wrong. The number of a kind is its register code; the table in fault.cpp
/// names and describes each, and FaultHelp() prints it.
enum class FaultKind {
  kNone = 0,
  kDelay,
  kSilence,
  kRefuse,
  kCloseAfter,
  kCloseBefore,
  kCloseMidFrame,
  kPieces,
  kSplitHeader,
  kTooLong,
  kLongest,
  kWrongLength,
  kZeroLength,
  kEndless,
  kLate,
  kGarbage,
  kFixed,
  kNoise,
  kWrongCrc,
  kOtherAddress,
  kReset,
  kUnaccepted,
  kPause,
  kCut,
  kParity,
};

/// Holding registers from here on choose a fault for one exchange (Fault::OfRegister).
constexpr int kFaultRegisterBase = 20000;
/// Distance between the registers of two neighbouring register codes.
constexpr int kFaultRegisterStride = 100;
/// A device on this TCP port answers with FixedFrame() in place of a Modbus reply.
constexpr std::uint16_t kFixedFramePort = 16001;

/// A fault with its parameters (milliseconds, bytes; see FaultHelp()). A value; any thread.
class Fault {
 public:
  static constexpr std::size_t kParameterCount = 2;

  /// The fault with the default parameters of the table. Not explicit: a kind alone is the usual
  /// way to write a fault.
  Fault(FaultKind kind = FaultKind::kNone);
  /// The fault with its first parameter, or both, chosen; throws std::invalid_argument when the
  /// fault takes fewer parameters or a value is out of its range.
  Fault(FaultKind kind, int first);
  Fault(FaultKind kind, int first, int second);

  /// Reads "NAME", "NAME:PARAMETER" or "NAME:PARAMETER:PARAMETER"; throws std::invalid_argument
  /// with a message for the user when there is no such fault or a parameter does not fit.
  static Fault Parse(const std::string& text);

  /// The fault that a read of holding registers from this start register asks for: register
  /// kFaultRegisterBase + kFaultRegisterStride * code + step, where a step other than 0 makes the
  /// first parameter step times the unit of the table. Empty when the register asks for none that
  /// the transport has.
  static std::optional<Fault> OfRegister(int start_register, Transport transport);
  /// The fault that a request frame asks for by its start register; the request then reads from 0.
  static std::optional<Fault> TakeFromRequest(Bytes& request, Transport transport);

  /// Throws std::invalid_argument with a message for the user when the fault makes no sense on the
  /// transport.
  void CheckTransport(Transport transport) const;

  FaultKind Kind() const { return kind_; }
  /// Whether it shows at the connect, before any request: the device needs a port of its own.
  bool IsAtConnect() const {
    return kind_ == FaultKind::kRefuse || kind_ == FaultKind::kUnaccepted;
  }
  /// Parameter 0 or 1; 0 for one the fault does not have.
  int Parameter(std::size_t index) const { return parameters_[index]; }

  /// What a device with this fault sends when `frame` is its right reply. Nothing when the frame is
  /// too short to be one or the fault is not one of the transport.
  Answer Play(const Bytes& frame, Transport transport) const;

 private:
  void SetParameter(std::size_t index, int value);

  FaultKind kind_;
  std::array<int, kParameterCount> parameters_{};
};

/// The 133 bytes of a fixed-frame device: an MBAP header whose length field (65535) does not fit,
/// then each byte its own offset (6, 7, ... 132).
Bytes FixedFrame();

/// The table of faults as text: name with parameters, register, description.
std::string FaultHelp();

}  // namespace tmsc::simulator

#endif  // TAMSEL_FIELD_SIMULATOR_FAULT_H_
