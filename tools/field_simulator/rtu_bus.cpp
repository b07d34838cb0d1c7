#include "rtu_bus.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <stdexcept>
#include <utility>

#include "modbus_frame.h"
#include "system_error.h"

namespace tmsc::simulator {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr std::size_t kReceiveSize = 4096;
/// No request is longer, so more bytes without a silence are none.
constexpr std::size_t kLargestInput = 512;
/// Longer than the scheduler is likely to hold up a client in the middle of a request.
constexpr milliseconds kSilence(50);
constexpr int kBroadcastAddress = 0;
constexpr std::int64_t kBitsPerCharacter = 11;
/// The silence on the line, in characters, by which a device knows the end of a request.
constexpr double kSilentCharacters = 3.5;

nanoseconds CharacterTime(int baud_rate) {
  return baud_rate > 0 ? nanoseconds(std::chrono::seconds(kBitsPerCharacter)) / baud_rate
                       : nanoseconds(0);
}

/// Takes the request that the input begins with; empty when its length or CRC does not fit (yet).
Bytes TakeRequest(Bytes& input) {
  if (input.size() <= FunctionOffset(Transport::kRtu)) {
    return {};
  }
  const std::size_t length = NeededRequestLength(input, Transport::kRtu) + kCrcLength;
  return IsRtuFrame(input, length) ? TakeFirst(input, length) : Bytes();
}

/// Bytes with parity errors as a terminal with PARMRK marks them (termios(3)).
Bytes Marked(const std::uint8_t* bytes, std::size_t size) {
  Bytes marked;
  for (std::size_t index = 0; index < size; ++index) {
    marked.insert(marked.end(), {0xFF, 0, bytes[index]});
  }
  return marked;
}

/// What the symbolic link points to; empty when there is none.
std::string LinkTarget(const std::string& path) {
  std::array<char, PATH_MAX> target{};
  const ssize_t length = readlink(path.c_str(), target.data(), target.size());
  return std::string(target.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
}

}  // namespace

RtuBus::RtuBus(EventLoop& loop, std::string path, int baud_rate, bool is_echoing)
    : loop_(loop),
      path_(std::move(path)),
      character_time_(CharacterTime(baud_rate)),
      is_echoing_(is_echoing),
      responder_(Transport::kRtu) {}

RtuBus::~RtuBus() {
  Unplug();
}

void RtuBus::AddDevice(int address, const Fault& fault) {
  devices_.emplace_back(address, fault);
}

void RtuBus::Plug() {
  const auto lock = loop_.Lock();
  if (id_ != 0) {
    return;
  }
  OpenTerminal();
  Link();
  id_ = loop_.Add(*this);
  loop_.Watch(master_.Get(), id_, EPOLLIN, EPOLL_CTL_ADD);
}

void RtuBus::Unplug() {
  const auto lock = loop_.Lock();
  if (id_ == 0) {
    return;
  }
  loop_.Remove(std::exchange(id_, 0));
  RemoveLink();
  loop_.Close(master_);
  far_side_.Reset();
  terminal_name_.clear();
  input_.clear();
  silent_at_.reset();
  are_marks_off_ = false;
  output_.Clear();
  for (BusDevice& device : devices_) {
    device.busy_until = {};
  }
}

void RtuBus::OpenTerminal() {
  Descriptor master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
  std::array<char, 64> name{};
  if (!master.IsOpen() || grantpt(master.Get()) != 0 || unlockpt(master.Get()) != 0 ||
      ptsname_r(master.Get(), name.data(), name.size()) != 0) {
    throw SystemError("cannot make a pseudo-terminal for " + path_);
  }
  Descriptor far_side(open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
  termios line{};
  if (!far_side.IsOpen() || tcgetattr(far_side.Get(), &line) != 0) {
    throw SystemError(std::string("cannot open ") + name.data() + " for " + path_);
  }
  cfmakeraw(&line);
  if (tcsetattr(far_side.Get(), TCSANOW, &line) != 0) {
    throw SystemError(std::string("cannot set up ") + name.data() + " for " + path_);
  }
  master_ = std::move(master);
  far_side_ = std::move(far_side);
  terminal_name_ = name.data();
}

void RtuBus::Link() {
  if (!LinkTarget(path_).empty()) {
    unlink(path_.c_str());
  }
  if (symlink(terminal_name_.c_str(), path_.c_str()) != 0) {
    throw SystemError("cannot link " + path_);
  }
}

void RtuBus::RemoveLink() {
  // Another bus may have taken the path over.
  if (LinkTarget(path_) == terminal_name_) {
    unlink(path_.c_str());
  }
}

std::string RtuBus::TerminalName() const {
  const auto lock = loop_.Lock();
  return id_ != 0 ? terminal_name_ : "";
}

std::size_t RtuBus::IndexOf(int address) const {
  const auto found = std::find_if(
      devices_.begin(), devices_.end(),
      [address](const BusDevice& each) { return each.device.registers.Address() == address; });
  if (found == devices_.end()) {
    throw std::out_of_range("there is no device " + std::to_string(address) + " on " + path_);
  }
  return static_cast<std::size_t>(found - devices_.begin());
}

void RtuBus::SetFault(int address, const Fault& fault) {
  fault.CheckTransport(Transport::kRtu);
  const auto lock = loop_.Lock();
  devices_[IndexOf(address)].device.fault = fault;
}

std::uint64_t RtuBus::RequestsReceived(int address) const {
  return devices_[IndexOf(address)].device.requests;
}

void RtuBus::HandleEvents(std::uint64_t, std::uint32_t) {
  std::array<std::uint8_t, kReceiveSize> buffer{};
  const ssize_t size = read(master_.Get(), buffer.data(), buffer.size());
  if (are_marks_off_) {
    SetMarks(true);
  }
  if (size > 0) {
    input_.insert(input_.end(), buffer.begin(), buffer.begin() + size);
    ServeInput();
  }
  TransmitAndArm();
}

void RtuBus::HandleTime(std::uint64_t) {
  if (silent_at_ && *silent_at_ <= EventLoop::Clock::now()) {
    ServeAfterSilence();
  }
  TransmitAndArm();
}

void RtuBus::ServeInput() {
  for (Bytes request = TakeRequest(input_); !request.empty(); request = TakeRequest(input_)) {
    Serve(std::move(request));
  }
  if (input_.size() > kLargestInput) {
    input_.resize(kLargestInput);
  }
  silent_at_.reset();
  if (!input_.empty()) {
    silent_at_ = EventLoop::Clock::now() + kSilence;
  }
}

void RtuBus::ServeAfterSilence() {
  silent_at_.reset();
  // The length of a request with a function that is not known shows only now.
  Bytes request = std::exchange(input_, {});
  if (IsRtuFrame(request, request.size())) {
    Serve(std::move(request));
  }
}

void RtuBus::Serve(Bytes request) {
  const int address = request.front();
  if (is_echoing_) {
    static_cast<void>(output_.Add(Paced({{request}}, nanoseconds(0)), {}));
  }
  const auto lead = std::chrono::duration_cast<nanoseconds>(
      character_time_ * (static_cast<double>(request.size()) + kSilentCharacters));
  for (BusDevice& each : devices_) {
    SimulatedDevice& device = each.device;
    if (address != kBroadcastAddress && address != device.registers.Address()) {
      continue;
    }
    ++device.requests;
    const Fault fault = Fault::TakeFromRequest(request, Transport::kRtu).value_or(device.fault);
    Answer answer = fault.Play(responder_.Reply(request, device.registers), Transport::kRtu);
    each.busy_until = output_.Add(Paced(std::move(answer.pieces), lead), each.busy_until);
  }
}

/// The pieces as they come off the line: `lead` later, cut so small that each takes about a
/// millisecond, and each there when its last character is.
std::vector<Piece> RtuBus::Paced(std::vector<Piece> pieces, nanoseconds lead) const {
  if (character_time_.count() == 0 || pieces.empty()) {
    return pieces;
  }
  const auto characters =
      static_cast<std::size_t>(std::max<std::int64_t>(1, milliseconds(1) / character_time_));
  pieces.front().pause += lead;
  std::vector<Piece> paced;
  for (const Piece& piece : pieces) {
    nanoseconds pause = piece.pause;
    for (std::size_t offset = 0; offset < piece.bytes.size(); offset += characters) {
      const std::size_t size = std::min(characters, piece.bytes.size() - offset);
      const auto begin = piece.bytes.begin() + static_cast<std::ptrdiff_t>(offset);
      pause += character_time_ * static_cast<std::int64_t>(size);
      paced.push_back({Bytes(begin, begin + static_cast<std::ptrdiff_t>(size)), pause,
                       piece.is_stray, piece.is_damaged});
      pause = nanoseconds(0);
    }
  }
  return paced;
}

ssize_t RtuBus::Write(const std::uint8_t* bytes, std::size_t size, bool is_damaged) {
  termios line{};
  if (!is_damaged || tcgetattr(far_side_.Get(), &line) != 0 || (line.c_iflag & INPCK) == 0) {
    return write(master_.Get(), bytes, size);
  }
  if ((line.c_iflag & IGNPAR) != 0) {
    return static_cast<ssize_t>(size);
  }
  if ((line.c_iflag & PARMRK) == 0) {
    const Bytes zeros(size);
    return write(master_.Get(), zeros.data(), size);
  }
  // A terminal without a line has no errors to mark, so the marks come from here, and the terminal
  // adds none of its own to them: not before the next request, since it takes its time.
  const Bytes marked = Marked(bytes, size);
  SetMarks(false);
  const ssize_t written = write(master_.Get(), marked.data(), marked.size());
  return written < 0 ? written : static_cast<ssize_t>(size);
}

/// Whether the terminal marks errors, and so what looks like a mark.
void RtuBus::SetMarks(bool is_marking) {
  termios line{};
  tcgetattr(far_side_.Get(), &line);
  line.c_iflag = is_marking ? line.c_iflag | PARMRK : line.c_iflag & ~static_cast<tcflag_t>(PARMRK);
  tcsetattr(far_side_.Get(), TCSANOW, &line);
  are_marks_off_ = !is_marking;
}

void RtuBus::TransmitAndArm() {
  // A line does not wait for its reader: what the terminal has no room for is lost.
  const auto write = [this](const std::uint8_t* bytes, std::size_t size, bool is_damaged) {
    return Write(bytes, size, is_damaged);
  };
  while (output_.Send(write) != PieceQueue::Result::kSent) {
    output_.DropFirst();
  }
  std::optional<TimePoint> wake = output_.FirstDue();
  if (silent_at_ && (!wake || *silent_at_ < *wake)) {
    wake = silent_at_;
  }
  loop_.WakeAt(id_, wake);
}

}  // namespace tmsc::simulator
