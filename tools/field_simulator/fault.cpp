#include "fault.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <iomanip>
#include <random>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace tmsc::simulator {
namespace {

using std::chrono::milliseconds;

// Modbus/TCP framing: transaction 2 bytes, protocol 2, length 2 (of what follows it), unit 1.
constexpr std::size_t kHeaderLength = 6;
constexpr std::size_t kHeaderWithUnitLength = 7;
/// Function code, start register, count.
constexpr std::size_t kReadRequestLength = 5;
constexpr std::size_t kFixedFrameLength = 133;
/// The largest length field of a frame that still fits a reader's 438 bytes.
constexpr std::size_t kLargestLengthField = 432;
constexpr std::size_t kMissingBytes = 10;
/// A frame of an RTU device that does not stop in time.
constexpr std::size_t kTooLongRtuFrame = 500;
/// Address, function code and CRC.
constexpr std::size_t kShortestRtuFrame = 4;

struct FaultParameter {
  const char* name;  ///< Null: the fault has no such parameter.
  int default_value;
  int minimum;
  int maximum;
  int register_unit;  ///< What one step of the start register adds.
};

constexpr FaultParameter kNoParameter = {nullptr, 0, 0, 0, 0};

constexpr FaultParameter Milliseconds(int default_value) {
  return {"MS", default_value, 0, 600000, 10};
}

/// Makes the answer out of the right reply.
using Player = Answer (*)(const Fault& fault, const Bytes& frame);

struct FaultDescription {
  FaultKind kind;
  const char* name;
  std::array<FaultParameter, Fault::kParameterCount> parameters;
  /// Make the answer out of the right reply; null when the transport does not have the fault.
  Player play_tcp;
  Player play_rtu;
  const char* description;
};

void SetLengthField(Bytes* frame, std::size_t length) {
  (*frame)[4] = static_cast<std::uint8_t>(length >> 8);
  (*frame)[5] = static_cast<std::uint8_t>(length & 0xFF);
}

Bytes FirstBytes(const Bytes& frame, std::size_t count) {
  return Bytes(frame.begin(),
               frame.begin() + static_cast<std::ptrdiff_t>(std::min(count, frame.size())));
}

Bytes BytesFrom(const Bytes& frame, std::size_t offset) {
  return Bytes(frame.begin() + static_cast<std::ptrdiff_t>(std::min(offset, frame.size())),
               frame.end());
}

Answer OneFrame(Bytes frame, Ending ending = Ending::kKeepOpen) {
  Answer answer;
  answer.pieces.push_back({std::move(frame), milliseconds(0), false});
  answer.ending = ending;
  return answer;
}

/// The frame cut or filled to this size, each byte that is added its own offset.
Bytes Resized(const Bytes& frame, std::size_t size) {
  Bytes resized = frame;
  while (resized.size() < size) {
    resized.push_back(static_cast<std::uint8_t>(resized.size() & 0xFF));
  }
  resized.resize(size);
  return resized;
}

Bytes RandomBytes(int count, std::uint32_t seed) {
  std::mt19937 generator(seed);
  std::uniform_int_distribution<int> any_byte(0, 255);
  Bytes bytes(static_cast<std::size_t>(count));
  for (std::uint8_t& byte : bytes) {
    byte = static_cast<std::uint8_t>(any_byte(generator));
  }
  return bytes;
}

/// A frame that keeps its promise of `length` bytes after the header.
Answer FilledFrame(const Bytes& frame, std::size_t length) {
  Bytes filled = Resized(frame, kHeaderLength + length);
  SetLengthField(&filled, length);
  return OneFrame(std::move(filled));
}

Answer PlayNone(const Fault&, const Bytes& frame) {
  return OneFrame(frame);
}

Answer PlayDelay(const Fault& fault, const Bytes& frame) {
  Answer answer = OneFrame(frame);
  answer.pieces.front().pause = milliseconds(fault.Parameter(0));
  return answer;
}

Answer PlaySilence(const Fault&, const Bytes&) {
  return {};
}

Answer PlayCloseAfter(const Fault&, const Bytes& frame) {
  return OneFrame(frame, Ending::kClose);
}

Answer PlayCloseBefore(const Fault&, const Bytes&) {
  return {{}, Ending::kClose};
}

Answer PlayCloseMidFrame(const Fault&, const Bytes& frame) {
  return OneFrame(FirstBytes(frame, frame.size() / 2), Ending::kClose);
}

Answer PlayPieces(const Fault& fault, const Bytes& frame) {
  const auto piece_size = static_cast<std::size_t>(fault.Parameter(0));
  Answer answer;
  for (std::size_t offset = 0; offset < frame.size(); offset += piece_size) {
    const milliseconds pause(offset == 0 ? 0 : fault.Parameter(1));
    answer.pieces.push_back({FirstBytes(BytesFrom(frame, offset), piece_size), pause, false});
  }
  return answer;
}

Answer PlaySplitHeader(const Fault& fault, const Bytes& frame) {
  Answer answer = OneFrame(FirstBytes(frame, kHeaderLength / 2));
  answer.pieces.push_back(
      {BytesFrom(frame, kHeaderLength / 2), milliseconds(fault.Parameter(0)), false});
  return answer;
}

Answer PlayTooLong(const Fault&, const Bytes& frame) {
  return FilledFrame(frame, kLargestLengthField + 1);
}

Answer PlayLongest(const Fault&, const Bytes& frame) {
  return FilledFrame(frame, kLargestLengthField);
}

Answer PlayWrongLength(const Fault&, const Bytes& frame) {
  Bytes short_frame = frame;
  SetLengthField(&short_frame, frame.size() - kHeaderLength + kMissingBytes);
  return OneFrame(std::move(short_frame));
}

Answer PlayZeroLength(const Fault&, const Bytes& frame) {
  Bytes header = FirstBytes(frame, kHeaderLength);
  SetLengthField(&header, 0);
  return OneFrame(std::move(header));
}

Answer PlayEndless(const Fault&, const Bytes& frame) {
  return OneFrame(frame, Ending::kEndless);
}

Answer PlayLate(const Fault& fault, const Bytes& frame) {
  Answer answer = OneFrame(frame);
  answer.pieces.push_back({frame, milliseconds(fault.Parameter(0)), true});
  return answer;
}

Answer PlayGarbage(const Fault& fault, const Bytes& frame) {
  // The transaction number is part of the seed: exchanges differ, and yet a test run repeats.
  const auto transaction = static_cast<std::uint32_t>((frame[0] << 8) | frame[1]);
  return OneFrame(RandomBytes(fault.Parameter(0),
                              static_cast<std::uint32_t>(fault.Parameter(1)) + transaction));
}

Answer PlayFixed(const Fault&, const Bytes&) {
  return OneFrame(FixedFrame());
}

Answer PlayRefuse(const Fault&, const Bytes&) {
  return {};
}

Answer PlayTooLongRtu(const Fault&, const Bytes& frame) {
  return OneFrame(Resized(frame, kTooLongRtuFrame));
}

Answer PlayLateRtu(const Fault& fault, const Bytes& frame) {
  Answer answer = PlayDelay(fault, frame);
  answer.pieces.front().stray = true;
  return answer;
}

Answer PlayGarbageRtu(const Fault& fault, const Bytes&) {
  return OneFrame(RandomBytes(fault.Parameter(0), static_cast<std::uint32_t>(fault.Parameter(1))));
}

Answer PlayNoise(const Fault& fault, const Bytes& frame) {
  Bytes noisy = RandomBytes(fault.Parameter(0), 1);
  noisy.insert(noisy.end(), frame.begin(), frame.end());
  return OneFrame(std::move(noisy));
}

Answer PlayWrongCrc(const Fault&, const Bytes& frame) {
  Bytes wrong = frame;
  wrong.back() ^= 0xFF;
  return OneFrame(std::move(wrong));
}

Answer PlayOtherAddress(const Fault&, const Bytes& frame) {
  Bytes other = frame;
  ++other.front();
  SetCrc(&other);
  return OneFrame(std::move(other));
}

/// One row for each kind, at the index of its number.
constexpr std::array<FaultDescription, 20> kFaults = {{
    {FaultKind::kNone,
     "none",
     {kNoParameter, kNoParameter},
     PlayNone,
     PlayNone,
     "answers as it should"},
    {FaultKind::kDelay,
     "delay",
     {Milliseconds(300), kNoParameter},
     PlayDelay,
     PlayDelay,
     "answers MS late, its later answers behind"},
    {FaultKind::kSilence,
     "silence",
     {kNoParameter, kNoParameter},
     PlaySilence,
     PlaySilence,
     "accepts and reads, never answers"},
    {FaultKind::kRefuse,
     "refuse",
     {kNoParameter, kNoParameter},
     PlayRefuse,
     nullptr,
     "does not listen: connection refused"},
    {FaultKind::kCloseAfter,
     "close-after",
     {kNoParameter, kNoParameter},
     PlayCloseAfter,
     nullptr,
     "answers, then closes"},
    {FaultKind::kCloseBefore,
     "close-before",
     {kNoParameter, kNoParameter},
     PlayCloseBefore,
     nullptr,
     "closes when a request comes, without an answer"},
    {FaultKind::kCloseMidFrame,
     "close-mid-frame",
     {kNoParameter, kNoParameter},
     PlayCloseMidFrame,
     nullptr,
     "closes after half of the frame"},
    {FaultKind::kPieces,
     "pieces",
     {{{"BYTES", 4, 1, 438, 1}, Milliseconds(20)}},
     PlayPieces,
     PlayPieces,
     "sends the frame in pieces of BYTES, MS apart"},
    {FaultKind::kSplitHeader,
     "split-header",
     {Milliseconds(100), kNoParameter},
     PlaySplitHeader,
     nullptr,
     "sends 3 bytes of the header, the rest MS later"},
    {FaultKind::kTooLong,
     "too-long",
     {kNoParameter, kNoParameter},
     PlayTooLong,
     PlayTooLongRtu,
     "announces and sends 433 bytes after the header; on RTU 500 bytes in all, without a pause"},
    {FaultKind::kLongest,
     "longest",
     {kNoParameter, kNoParameter},
     PlayLongest,
     nullptr,
     "announces and sends 432 bytes after the header: 438 in all"},
    {FaultKind::kWrongLength,
     "wrong-length",
     {kNoParameter, kNoParameter},
     PlayWrongLength,
     nullptr,
     "announces 10 bytes more than it sends, then is silent"},
    {FaultKind::kZeroLength,
     "zero-length",
     {kNoParameter, kNoParameter},
     PlayZeroLength,
     nullptr,
     "sends a header alone, with length field 0"},
    {FaultKind::kEndless,
     "endless",
     {kNoParameter, kNoParameter},
     PlayEndless,
     nullptr,
     "answers, then sends bytes for ever"},
    {FaultKind::kLate,
     "late",
     {Milliseconds(300), kNoParameter},
     PlayLate,
     PlayLateRtu,
     "answers, and sends the same frame again MS later; on RTU answers MS late and only so, while "
     "it and the others answer later requests at once: the frame comes in the next one's time"},
    {FaultKind::kGarbage,
     "garbage",
     {{{"BYTES", 32, 1, 4096, 1}, {"SEED", 1, 0, 1000000, 1}}},
     PlayGarbage,
     PlayGarbageRtu,
     "sends BYTES random bytes; SEED repeats them"},
    {FaultKind::kFixed,
     "fixed",
     {kNoParameter, kNoParameter},
     PlayFixed,
     nullptr,
     "sends 133 bytes of its own, whatever was asked (always so on port 16001)"},
    {FaultKind::kNoise,
     "noise",
     {{{"BYTES", 3, 1, 400, 1}, kNoParameter}},
     nullptr,
     PlayNoise,
     "sends BYTES random bytes right before the frame"},
    {FaultKind::kWrongCrc,
     "wrong-crc",
     {kNoParameter, kNoParameter},
     nullptr,
     PlayWrongCrc,
     "sends the frame with a CRC that does not fit"},
    {FaultKind::kOtherAddress,
     "other-address",
     {kNoParameter, kNoParameter},
     nullptr,
     PlayOtherAddress,
     "answers in the name of its address + 1, the CRC right"},
}};

constexpr bool RowsAreInOrder() {
  for (std::size_t index = 0; index < kFaults.size(); ++index) {
    if (static_cast<std::size_t>(kFaults[index].kind) != index) {
      return false;
    }
  }
  return true;
}
static_assert(RowsAreInOrder(), "a fault's row is found by its number");

const FaultDescription& Describe(FaultKind kind) {
  return kFaults[static_cast<std::size_t>(kind)];
}

Player PlayerOn(const FaultDescription& description, Transport transport) {
  return transport == Transport::kTcp ? description.play_tcp : description.play_rtu;
}

/// False for a fault that shows before any request.
bool HasRegister(const FaultDescription& description) {
  return description.kind != FaultKind::kRefuse;
}

std::string TransportNames(const FaultDescription& description) {
  if (description.play_tcp != nullptr && description.play_rtu != nullptr) {
    return "tcp rtu";
  }
  return description.play_tcp != nullptr ? "tcp" : "rtu";
}

std::string NameWithParameters(const FaultDescription& description) {
  std::string text = description.name;
  std::string closing;
  for (const FaultParameter& parameter : description.parameters) {
    if (parameter.name != nullptr) {
      text += std::string("[:") + parameter.name;
      closing += ']';
    }
  }
  return text + closing;
}

int ParseNumber(const std::string& text, const std::string& whole) {
  int value = 0;
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value);
  if (result.ec != std::errc() || result.ptr != end) {
    throw std::invalid_argument("fault \"" + whole + "\": \"" + text + "\" is not a number");
  }
  return value;
}

}  // namespace

Fault::Fault(FaultKind kind) : kind_(kind) {
  for (std::size_t index = 0; index < kParameterCount; ++index) {
    parameters_[index] = Describe(kind).parameters[index].default_value;
  }
}

Fault::Fault(FaultKind kind, int first) : Fault(kind) {
  SetParameter(0, first);
}

Fault::Fault(FaultKind kind, int first, int second) : Fault(kind, first) {
  SetParameter(1, second);
}

void Fault::SetParameter(std::size_t index, int value) {
  const FaultDescription& description = Describe(kind_);
  if (index >= kParameterCount || description.parameters[index].name == nullptr) {
    throw std::invalid_argument("fault " + NameWithParameters(description) +
                                " does not take that many parameters");
  }
  const FaultParameter& parameter = description.parameters[index];
  if (value < parameter.minimum || value > parameter.maximum) {
    throw std::invalid_argument("fault " + NameWithParameters(description) + ": " + parameter.name +
                                " is " + std::to_string(value) + ", allowed are " +
                                std::to_string(parameter.minimum) + " to " +
                                std::to_string(parameter.maximum));
  }
  parameters_[index] = value;
}

Fault Fault::Parse(const std::string& text) {
  const std::size_t name_end = std::min(text.find(':'), text.size());
  const auto row = std::find_if(kFaults.begin(), kFaults.end(), [&](const auto& description) {
    return text.compare(0, name_end, description.name) == 0;
  });
  if (row == kFaults.end()) {
    throw std::invalid_argument("there is no fault \"" + text.substr(0, name_end) + "\"");
  }
  Fault fault(row->kind);
  std::size_t position = name_end;
  for (std::size_t index = 0; position < text.size(); ++index) {
    const std::size_t end = std::min(text.find(':', position + 1), text.size());
    fault.SetParameter(index, ParseNumber(text.substr(position + 1, end - position - 1), text));
    position = end;
  }
  return fault;
}

std::optional<Fault> Fault::OfRegister(int start_register, Transport transport) {
  const int offset = start_register - kFaultRegisterBase;
  const int code = offset / kFaultRegisterStride;
  if (offset < 0 || code >= static_cast<int>(kFaults.size())) {
    return std::nullopt;
  }
  const FaultDescription& description = kFaults[static_cast<std::size_t>(code)];
  const int step = offset % kFaultRegisterStride;
  if (!HasRegister(description) || PlayerOn(description, transport) == nullptr ||
      (step != 0 && description.parameters[0].name == nullptr)) {
    return std::nullopt;
  }
  if (step == 0) {
    return Fault(description.kind);
  }
  return Fault(description.kind, step * description.parameters[0].register_unit);
}

std::optional<Fault> Fault::TakeFromRequest(Bytes* request, Transport transport) {
  constexpr std::uint8_t kReadHoldingRegisters = 3;
  const std::size_t function = FunctionOffset(transport);
  if (request->size() < function + kReadRequestLength ||
      (*request)[function] != kReadHoldingRegisters) {
    return std::nullopt;
  }
  const auto fault = OfRegister(BigEndian(&(*request)[function + 1]), transport);
  if (fault) {
    (*request)[function + 1] = 0;
    (*request)[function + 2] = 0;
  }
  return fault;
}

void Fault::CheckTransport(Transport transport) const {
  const FaultDescription& description = Describe(kind_);
  if (PlayerOn(description, transport) == nullptr) {
    throw std::invalid_argument(std::string("fault ") + description.name + " is for " +
                                TransportNames(description) + " devices, not for " +
                                (transport == Transport::kTcp ? "tcp" : "rtu"));
  }
}

Answer Fault::Play(const Bytes& frame, Transport transport) const {
  const Player play = PlayerOn(Describe(kind_), transport);
  const std::size_t shortest =
      transport == Transport::kTcp ? kHeaderWithUnitLength : kShortestRtuFrame;
  return play != nullptr && frame.size() >= shortest ? play(*this, frame) : Answer();
}

Bytes FixedFrame() {
  Bytes frame(kFixedFrameLength);
  for (std::size_t index = kHeaderLength; index < frame.size(); ++index) {
    frame[index] = static_cast<std::uint8_t>(index);
  }
  SetLengthField(&frame, 0xFFFF);
  return frame;
}

std::string FaultHelp() {
  std::ostringstream text;
  text << "FAULT                  register  on       what the device does (defaults)\n"
       << std::left;
  for (const FaultDescription& description : kFaults) {
    const int start_register =
        kFaultRegisterBase + kFaultRegisterStride * static_cast<int>(description.kind);
    text << std::setw(23) << NameWithParameters(description) << std::setw(10)
         << (HasRegister(description) ? std::to_string(start_register) : "-") << std::setw(9)
         << TransportNames(description) << description.description;
    const char* separator = " (";
    for (const FaultParameter& parameter : description.parameters) {
      if (parameter.name != nullptr) {
        text << separator << parameter.name << ' ' << parameter.default_value;
        separator = ", ";
      }
    }
    text << (separator[0] == ',' ? ")\n" : "\n");
  }
  text
      << "A read of holding registers (function 3) that starts at such a register plays the fault\n"
         "for that one exchange; the reply holds the registers from 0 on. Register + n, n up to "
      << kFaultRegisterStride - 1 << ",\nsets the first parameter: n BYTES or n * 10 ms.\n";
  return text.str();
}

}  // namespace tmsc::simulator
