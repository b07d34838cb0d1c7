#include "fault.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <iomanip>
#include <iterator>
#include <random>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "modbus/rtu_frame.h"

namespace tmsc::simulator {
namespace {

using std::chrono::milliseconds;

/// Function code, start register, count.
constexpr std::size_t kReadRequestLength = 5;
constexpr std::size_t kFixedFrameLength = 133;
/// The largest length field of a frame that still fits a reader's 438 bytes.
constexpr std::size_t kLargestLengthField = 432;
constexpr std::size_t kMissingBytes = 10;
/// A frame of an RTU device that does not stop in time.
constexpr std::size_t kTooLongRtuFrame = 500;

struct FaultParameter {
  const char* name = nullptr;  ///< Null: the fault has no such parameter.
  int default_value = 0;
  int minimum = 0;
  int maximum = 0;
  int register_unit = 1;  ///< What one step of the start register adds.
};

constexpr FaultParameter Milliseconds(int default_value) {
  return {"MS", default_value, 0, 600000, 10};
}

constexpr FaultParameter Size(int default_value, int maximum) {
  return {"BYTES", default_value, 1, maximum};
}

using FaultParameters = std::array<FaultParameter, Fault::kParameterCount>;

constexpr FaultParameters Takes(FaultParameter first, FaultParameter second = {}) {
  return {{first, second}};
}

/// The right reply, and the parameters of the fault to play on it.
struct Reply {
  const Bytes& frame;
  int first;
  int second;
};

using Player = Answer (*)(const Reply& reply);

struct FaultDescription {
  FaultKind kind;
  const char* name;
  const char* description;
  /// Null when the transport does not have the fault.
  Player play_tcp;
  Player play_rtu = nullptr;
  FaultParameters parameters = {};
};

/// At most `count` bytes from this offset on, which is in the frame.
Bytes Part(const Bytes& frame, std::size_t offset, std::size_t count) {
  const auto begin = frame.begin() + static_cast<std::ptrdiff_t>(offset);
  return {begin, begin + static_cast<std::ptrdiff_t>(std::min(count, frame.size() - offset))};
}

/// The frame cut or filled to this size, each byte that is added its own offset.
Bytes Resized(Bytes frame, std::size_t size) {
  while (frame.size() < size) {
    frame.push_back(static_cast<std::uint8_t>(frame.size() & 0xFF));
  }
  frame.resize(size);
  return frame;
}

Bytes WithLengthField(Bytes frame, std::size_t length) {
  frame[kLengthOffset] = static_cast<std::uint8_t>(length >> 8);
  frame[kLengthOffset + 1] = static_cast<std::uint8_t>(length & 0xFF);
  return frame;
}

/// A frame that keeps its promise of `length` bytes after the length field.
Bytes FilledFrame(const Bytes& frame, std::size_t length) {
  return WithLengthField(Resized(frame, kUnitOffset + length), length);
}

Bytes RandomBytes(int count, int seed) {
  std::mt19937 generator(static_cast<std::uint32_t>(seed));
  std::uniform_int_distribution<int> any_byte(0, 255);
  Bytes bytes(static_cast<std::size_t>(count));
  std::generate(bytes.begin(), bytes.end(),
                [&] { return static_cast<std::uint8_t>(any_byte(generator)); });
  return bytes;
}

/// The answer with these bytes behind it.
Answer Then(Answer answer, Bytes bytes, int pause_ms, bool is_stray = false) {
  answer.pieces.push_back({std::move(bytes), milliseconds(pause_ms), is_stray});
  return answer;
}

Answer OneFrame(Bytes frame, Ending ending = Ending::kKeepOpen) {
  return Then({{}, ending}, std::move(frame), 0);
}

Answer PlayNothing(const Reply&) {
  return {};
}

Answer PlayFrame(const Reply& reply) {
  return OneFrame(reply.frame);
}

Answer PlayDelay(const Reply& reply) {
  return Then({}, reply.frame, reply.first);
}

Answer PlayPieces(const Reply& reply) {
  const auto piece_size = static_cast<std::size_t>(reply.first);
  Answer answer;
  for (std::size_t offset = 0; offset < reply.frame.size(); offset += piece_size) {
    answer = Then(std::move(answer), Part(reply.frame, offset, piece_size),
                  offset == 0 ? 0 : reply.second);
  }
  return answer;
}

Answer PlaySplitHeader(const Reply& reply) {
  constexpr std::size_t kFirstPart = 3;
  return Then(OneFrame(Part(reply.frame, 0, kFirstPart)),
              Part(reply.frame, kFirstPart, reply.frame.size()), reply.first);
}

Answer PlayNoise(const Reply& reply) {
  Bytes noisy = RandomBytes(reply.first, 1);
  noisy.insert(noisy.end(), reply.frame.begin(), reply.frame.end());
  return OneFrame(std::move(noisy));
}

Answer PlayWrongCrc(const Reply& reply) {
  Bytes wrong = reply.frame;
  wrong.back() ^= 0xFF;
  return OneFrame(std::move(wrong));
}

Answer PlayPause(const Reply& reply) {
  const std::size_t half = reply.frame.size() / 2;
  return Then(OneFrame(Part(reply.frame, 0, half)), Part(reply.frame, half, reply.frame.size()),
              reply.first);
}

Answer PlayCut(const Reply& reply) {
  const auto missing = std::min(static_cast<std::size_t>(reply.first), reply.frame.size());
  return OneFrame(Part(reply.frame, 0, reply.frame.size() - missing));
}

Answer PlayParity(const Reply& reply) {
  Answer answer = PlayPause(reply);
  answer.pieces.back().is_damaged = true;
  return answer;
}

/// One row for each kind, at the index of its number.
constexpr FaultDescription kFaults[] = {
    {FaultKind::kNone, "none", "answers as it should", PlayFrame, PlayFrame},
    {FaultKind::kDelay, "delay", "answers MS late, its later answers behind", PlayDelay, PlayDelay,
     Takes(Milliseconds(300))},
    {FaultKind::kSilence, "silence", "accepts and reads, never answers", PlayNothing, PlayNothing},
    {FaultKind::kRefuse, "refuse", "does not listen: connection refused", PlayNothing},
    {FaultKind::kCloseAfter, "close-after", "answers, then closes",
     [](const Reply& reply) { return OneFrame(reply.frame, Ending::kClose); }},
    {FaultKind::kCloseBefore, "close-before", "closes when a request comes, without an answer",
     [](const Reply&) {
       return Answer{{}, Ending::kClose};
     }},
    {FaultKind::kCloseMidFrame, "close-mid-frame", "closes after half of the frame",
     [](const Reply& reply) {
       return OneFrame(Part(reply.frame, 0, reply.frame.size() / 2), Ending::kClose);
     }},
    {FaultKind::kPieces, "pieces", "sends the frame in pieces of BYTES, MS apart", PlayPieces,
     PlayPieces, Takes(Size(4, 438), Milliseconds(20))},
    {FaultKind::kSplitHeader, "split-header", "sends 3 bytes of the header, the rest MS later",
     PlaySplitHeader, nullptr, Takes(Milliseconds(100))},
    {FaultKind::kTooLong, "too-long",
     "announces and sends 433 bytes after the header; on RTU 500 bytes in all, without a pause",
     [](const Reply& reply) { return OneFrame(FilledFrame(reply.frame, kLargestLengthField + 1)); },
     [](const Reply& reply) { return OneFrame(Resized(reply.frame, kTooLongRtuFrame)); }},
    {FaultKind::kLongest, "longest", "announces and sends 432 bytes after the header: 438 in all",
     [](const Reply& reply) { return OneFrame(FilledFrame(reply.frame, kLargestLengthField)); }},
    {FaultKind::kWrongLength, "wrong-length",
     "announces 10 bytes more than it sends, then is silent",
     [](const Reply& reply) {
       return OneFrame(
           WithLengthField(reply.frame, reply.frame.size() - kUnitOffset + kMissingBytes));
     }},
    {FaultKind::kZeroLength, "zero-length", "sends a header alone, with length field 0",
     [](const Reply& reply) { return OneFrame(FilledFrame(reply.frame, 0)); }},
    {FaultKind::kEndless, "endless", "answers, then sends bytes for ever",
     [](const Reply& reply) { return OneFrame(reply.frame, Ending::kEndless); }},
    {FaultKind::kLate, "late",
     "answers, and sends the same frame again MS later; on RTU answers MS late and only so, while "
     "it and the others answer later requests at once: the frame comes in the next one's time",
     [](const Reply& reply) { return Then(OneFrame(reply.frame), reply.frame, reply.first, true); },
     [](const Reply& reply) { return Then({}, reply.frame, reply.first, true); },
     Takes(Milliseconds(300))},
    {FaultKind::kGarbage, "garbage", "sends BYTES random bytes; SEED repeats them",
     // The transaction number is part of the seed: exchanges differ, and yet a test run repeats.
     [](const Reply& reply) {
       return OneFrame(RandomBytes(reply.first, reply.second + modbus::WordAt(reply.frame, 0)));
     },
     [](const Reply& reply) { return OneFrame(RandomBytes(reply.first, reply.second)); },
     Takes(Size(32, 4096), FaultParameter{"SEED", 1, 0, 1000000})},
    {FaultKind::kFixed, "fixed",
     "sends 133 bytes of its own, whatever was asked (always so on port 16001)",
     [](const Reply&) { return OneFrame(FixedFrame()); }},
    {FaultKind::kNoise, "noise", "sends BYTES random bytes right before the frame", nullptr,
     PlayNoise, Takes(Size(3, 400))},
    {FaultKind::kWrongCrc, "wrong-crc", "sends the frame with a CRC that does not fit", nullptr,
     PlayWrongCrc},
    {FaultKind::kOtherAddress, "other-address",
     "answers in the name of its address + 1, the CRC right", nullptr,
     [](const Reply& reply) {
       return OneFrame(
           modbus::RtuFrame(reply.frame[0] + 1, {reply.frame.begin() + 1, reply.frame.end() - 2}));
     }},
    {FaultKind::kReset, "reset", "breaks the connection with a reset when a request comes",
     [](const Reply&) {
       return Answer{{}, Ending::kReset};
     }},
    {FaultKind::kUnaccepted, "unaccepted", "has no room for a connection: connect timed out",
     PlayNothing},
    {FaultKind::kPause, "pause", "sends half of the frame, the rest MS later", nullptr, PlayPause,
     Takes(Milliseconds(50))},
    {FaultKind::kCut, "cut", "sends the frame without its last BYTES", nullptr, PlayCut,
     Takes(Size(2, 256))},
    {FaultKind::kParity, "parity", "sends half of the frame with parity errors", nullptr,
     PlayParity},
};

constexpr bool RowsAreInOrder() {
  for (std::size_t index = 0; index < std::size(kFaults); ++index) {
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

bool HasRegister(const FaultDescription& description) {
  return !Fault(description.kind).IsAtConnect();
}

std::string TransportNames(const FaultDescription& description) {
  const std::string tcp = description.play_tcp == nullptr ? "" : "tcp ";
  return description.play_rtu == nullptr ? "tcp" : tcp + "rtu";
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
  const FaultParameters& taken = Describe(kind).parameters;
  std::transform(taken.begin(), taken.end(), parameters_.begin(),
                 [](const FaultParameter& parameter) { return parameter.default_value; });
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
  const auto row = std::find_if(
      std::begin(kFaults), std::end(kFaults),
      [&](const auto& description) { return text.compare(0, name_end, description.name) == 0; });
  if (row == std::end(kFaults)) {
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
  if (offset < 0 || code >= static_cast<int>(std::size(kFaults))) {
    return std::nullopt;
  }
  const FaultDescription& description = kFaults[static_cast<std::size_t>(code)];
  const int step = offset % kFaultRegisterStride;
  if (!HasRegister(description) || PlayerOn(description, transport) == nullptr ||
      (step != 0 && description.parameters[0].name == nullptr)) {
    return std::nullopt;
  }
  return step == 0 ? Fault(description.kind)
                   : Fault(description.kind, step * description.parameters[0].register_unit);
}

std::optional<Fault> Fault::TakeFromRequest(Bytes& request, Transport transport) {
  const std::size_t function = FunctionOffset(transport);
  if (request.size() < function + kReadRequestLength ||
      request[function] != modbus::kReadHoldingRegisters) {
    return std::nullopt;
  }
  const auto fault = OfRegister(modbus::WordAt(request, function + 1), transport);
  if (fault) {
    std::fill_n(request.begin() + static_cast<std::ptrdiff_t>(function + 1), 2, std::uint8_t{0});
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
  return play != nullptr && frame.size() >= ShortestFrame(transport)
             ? play({frame, Parameter(0), Parameter(1)})
             : Answer();
}

Bytes FixedFrame() {
  return WithLengthField(Resized(Bytes(kUnitOffset), kFixedFrameLength), 0xFFFF);
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
