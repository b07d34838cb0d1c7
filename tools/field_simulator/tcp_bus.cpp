#include "tcp_bus.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>

#include "modbus_frame.h"
#include "system_error.h"

namespace tmsc::simulator {
namespace {

constexpr std::size_t kReceiveSize = 4096;
/// A connection with more pieces waiting is not read from until some are out.
constexpr std::size_t kMaxQueuedPieces = 1024;
/// How many blocks an endless answer sends before the other connections have their turn.
constexpr int kEndlessBlocksAtOnce = 16;

// Where a Modbus/TCP frame names its protocol: 0 for Modbus.
constexpr std::size_t kProtocolOffset = 2;
/// Unit and function at least; a Modbus frame of 260 bytes at most.
constexpr int kSmallestLengthField = 2;
constexpr int kLargestLengthField = 254;

std::string EndpointText(const sockaddr_in& endpoint) {
  std::array<char, INET_ADDRSTRLEN> text{};
  inet_ntop(AF_INET, &endpoint.sin_addr, text.data(), text.size());
  return std::string(text.data()) + ':' + std::to_string(ntohs(endpoint.sin_port));
}

/// Takes the next whole Modbus/TCP frame out of the input; empty when there is none yet. Bytes
/// that cannot be a frame are dropped, as there is no telling where the next frame begins.
Bytes TakeFrame(Bytes& input) {
  if (input.size() < kUnitOffset) {
    return {};
  }
  const int length = modbus::WordAt(input, kLengthOffset);
  if (modbus::WordAt(input, kProtocolOffset) != 0 || length < kSmallestLengthField ||
      length > kLargestLengthField) {
    input.clear();
    return {};
  }
  const std::size_t size = kUnitOffset + static_cast<std::size_t>(length);
  return input.size() >= size ? TakeFirst(input, size) : Bytes();
}

}  // namespace

TcpBus::TcpBus(EventLoop& loop)
    : loop_(loop), spare_(open("/dev/null", O_RDONLY | O_CLOEXEC)), responder_(Transport::kTcp) {}

TcpBus::~TcpBus() {
  Close();
}

void TcpBus::AddListener(const std::string& ip_address, std::uint16_t port, bool is_gateway,
                         std::vector<SimulatedDevice*> devices) {
  auto listener = std::make_unique<Listener>();
  listener->endpoint.sin_family = AF_INET;
  listener->endpoint.sin_port = htons(port);
  if (inet_pton(AF_INET, ip_address.c_str(), &listener->endpoint.sin_addr) != 1) {
    throw std::invalid_argument("\"" + ip_address + "\" is not an IPv4 address");
  }
  listener->is_gateway = is_gateway;
  listener->devices = std::move(devices);
  Bind(*listener);
  const std::uint64_t id = loop_.Add(*this);
  Open(id, *listener, listener->devices.front()->fault.Kind());
  listeners_.emplace(id, std::move(listener));
}

void TcpBus::Close() {
  const auto lock = loop_.Lock();
  while (!connections_.empty()) {
    CloseConnection(connections_.begin()->first);
  }
  for (const auto& [id, listener] : listeners_) {
    loop_.Close(listener->descriptor);
    listener->filling.Reset();
  }
}

std::map<std::uint64_t, std::unique_ptr<TcpBus::Listener>>::const_iterator TcpBus::ListenerOf(
    const SimulatedDevice& device) const {
  const auto found = std::find_if(listeners_.begin(), listeners_.end(), [&](const auto& entry) {
    const auto& devices = entry.second->devices;
    return std::find(devices.begin(), devices.end(), &device) != devices.end();
  });
  if (found == listeners_.end()) {
    throw std::logic_error("the device is not on the bus before Start");
  }
  return found;
}

std::uint16_t TcpBus::Port(const SimulatedDevice& device) const {
  // Refusing binds anew.
  const auto lock = loop_.Lock();
  return ntohs(ListenerOf(device)->second->endpoint.sin_port);
}

std::uint64_t TcpBus::ConnectionsAccepted(const SimulatedDevice& device) const {
  return ListenerOf(device)->second->accepted;
}

void TcpBus::SetFault(SimulatedDevice& device, const Fault& fault) {
  const auto lock = loop_.Lock();
  const auto& [id, listener] = *ListenerOf(device);
  if (fault.IsAtConnect() && listener->is_gateway) {
    throw std::invalid_argument("a device cannot have a fault at the connect behind a shared port");
  }
  if (fault.IsAtConnect() || !listener->is_accepting) {
    Shut(*listener);
    Open(id, *listener, fault.Kind());
  }
  device.fault = fault;
}

void TcpBus::Bind(Listener& listener) {
  Descriptor descriptor(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int on = 1;
  auto* address = reinterpret_cast<sockaddr*>(&listener.endpoint);
  socklen_t length = sizeof(listener.endpoint);
  if (!descriptor.IsOpen() ||
      setsockopt(descriptor.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
      bind(descriptor.Get(), address, length) != 0 ||
      getsockname(descriptor.Get(), address, &length) != 0) {
    throw SystemError("cannot bind " + EndpointText(listener.endpoint));
  }
  listener.descriptor = std::move(descriptor);
}

/// Takes connects as a device with this fault does.
void TcpBus::Open(std::uint64_t id, Listener& listener, FaultKind kind) {
  if (kind == FaultKind::kRefuse) {
    return;
  }
  listener.is_accepting = kind != FaultKind::kUnaccepted;
  if (listen(listener.descriptor.Get(), listener.is_accepting ? SOMAXCONN : 0) != 0) {
    throw SystemError("cannot listen on " + EndpointText(listener.endpoint));
  }
  if (listener.is_accepting) {
    loop_.Watch(listener.descriptor.Get(), id, EPOLLIN, EPOLL_CTL_ADD);
  } else {
    Fill(listener);
  }
}

/// Takes the one place in a queue of the shortest length: the kernel drops what else comes.
void TcpBus::Fill(Listener& listener) {
  listener.filling.Reset(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const auto* address = reinterpret_cast<const sockaddr*>(&listener.endpoint);
  if (connect(listener.filling.Get(), address, sizeof(listener.endpoint)) != 0 &&
      errno != EINPROGRESS) {
    throw SystemError("cannot fill the queue of " + EndpointText(listener.endpoint));
  }
}

/// Closes an endpoint with its connections; its port stays bound.
void TcpBus::Shut(Listener& listener) {
  listener.is_accepting = false;
  listener.filling.Reset();
  loop_.Close(listener.descriptor);
  std::vector<std::uint64_t> ids;
  for (const auto& [id, connection] : connections_) {
    if (connection->listener == &listener) {
      ids.push_back(id);
    }
  }
  std::for_each(ids.begin(), ids.end(), [this](std::uint64_t id) { CloseConnection(id); });
  Bind(listener);
}

void TcpBus::HandleEvents(std::uint64_t id, std::uint32_t events) {
  if (const auto listener = listeners_.find(id); listener != listeners_.end()) {
    if (listener->second->is_accepting) {
      Accept(*listener->second);
    }
    return;
  }
  const auto found = connections_.find(id);
  if (found == connections_.end()) {
    return;
  }
  Connection& connection = *found->second;
  const bool is_gone =
      (events & (EPOLLERR | EPOLLHUP)) != 0 || ((events & EPOLLIN) != 0 && !Receive(connection));
  if (is_gone || !Transmit(connection)) {
    CloseConnection(id);
  }
}

void TcpBus::HandleTime(std::uint64_t id) {
  if (!Transmit(*connections_.at(id))) {
    CloseConnection(id);
  }
}

void TcpBus::Accept(Listener& listener) {
  Descriptor descriptor(
      accept4(listener.descriptor.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!descriptor.IsOpen()) {
    if (errno == EMFILE || errno == ENFILE) {
      // Left in the queue, the connection would wake the loop for ever.
      spare_.Reset();
      Descriptor(accept4(listener.descriptor.Get(), nullptr, nullptr, SOCK_CLOEXEC)).Reset();
      spare_.Reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
    return;
  }
  const int on = 1;
  setsockopt(descriptor.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  auto connection = std::make_unique<Connection>();
  connection->id = loop_.Add(*this);
  connection->descriptor = std::move(descriptor);
  connection->listener = &listener;
  connection->interest = EPOLLIN;
  loop_.Watch(connection->descriptor.Get(), connection->id, connection->interest, EPOLL_CTL_ADD);
  connections_.emplace(connection->id, std::move(connection));
  ++listener.accepted;
  ++open_connections_;
}

void TcpBus::CloseConnection(std::uint64_t id) {
  loop_.Remove(id);
  loop_.Close(connections_.at(id)->descriptor);
  connections_.erase(id);
  --open_connections_;
}

/// False when the peer has closed the connection.
bool TcpBus::Receive(Connection& connection) {
  std::array<std::uint8_t, kReceiveSize> buffer{};
  const ssize_t size = recv(connection.descriptor.Get(), buffer.data(), buffer.size(), 0);
  if (size <= 0) {
    return size < 0 && (errno == EAGAIN || errno == EINTR);
  }
  connection.input.insert(connection.input.end(), buffer.begin(), buffer.begin() + size);
  ServeInput(connection);
  return true;
}

void TcpBus::ServeInput(Connection& connection) {
  const Listener& listener = *connection.listener;
  // A device that answers whatever comes has no notion of a frame: what is read at once is one
  // request.
  const bool is_unframed =
      ntohs(listener.endpoint.sin_port) == kFixedFramePort ||
      (!listener.is_gateway && listener.devices.front()->fault.Kind() == FaultKind::kFixed);
  while (connection.ending == Ending::kKeepOpen) {
    Bytes request = is_unframed ? std::exchange(connection.input, {}) : TakeFrame(connection.input);
    if (request.empty()) {
      return;
    }
    Serve(connection, std::move(request));
  }
  connection.input.clear();
}

void TcpBus::Serve(Connection& connection, Bytes request) {
  const Listener& listener = *connection.listener;
  const bool is_fixed = ntohs(listener.endpoint.sin_port) == kFixedFramePort;
  SimulatedDevice* device = listener.devices.front();
  if (listener.is_gateway) {
    const int unit = request.size() > kUnitOffset ? request[kUnitOffset] : 0;
    const auto found =
        std::find_if(listener.devices.begin(), listener.devices.end(),
                     [unit](const auto* each) { return each->registers.Address() == unit; });
    if (found == listener.devices.end()) {
      if (!is_fixed) {
        const Bytes frame = responder_.Exception(request, MODBUS_EXCEPTION_GATEWAY_TARGET);
        Enqueue(connection, Fault().Play(frame, Transport::kTcp));
      }
      return;
    }
    device = *found;
  }
  ++device->requests;
  const Fault fault = Fault::TakeFromRequest(request, Transport::kTcp).value_or(device->fault);
  const bool is_modbus = !is_fixed && fault.Kind() != FaultKind::kFixed;
  const Bytes frame = is_modbus ? responder_.Reply(request, device->registers) : FixedFrame();
  Enqueue(connection, fault.Play(frame, Transport::kTcp));
}

void TcpBus::Enqueue(Connection& connection, Answer answer) {
  connection.busy_until = connection.output.Add(std::move(answer.pieces), connection.busy_until);
  connection.ending = answer.ending;
}

/// False when the connection is over: the device closes it, or the peer has.
bool TcpBus::Transmit(Connection& connection) {
  const PieceQueue::Result result = SendQueued(connection);
  const bool is_out = connection.output.Size() == 0;
  if (is_out && connection.ending == Ending::kReset) {
    const linger at_once = {1, 0};
    setsockopt(connection.descriptor.Get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
  }
  if (result == PieceQueue::Result::kFailed ||
      (is_out && (connection.ending == Ending::kClose || connection.ending == Ending::kReset))) {
    return false;
  }
  Arm(connection, result == PieceQueue::Result::kBlocked);
  return true;
}

/// Sends the pieces that are due, and the filling of an endless answer, of which there is always
/// more.
PieceQueue::Result TcpBus::SendQueued(Connection& connection) {
  static const Bytes filling(kReceiveSize, 0xEE);
  const int descriptor = connection.descriptor.Get();
  // The thread of the loop has every signal blocked, so a peer that is gone raises none.
  const PieceQueue::Result result =
      connection.output.Send([descriptor](const std::uint8_t* bytes, std::size_t size, bool) {
        return write(descriptor, bytes, size);
      });
  if (result != PieceQueue::Result::kSent || connection.output.Size() != 0 ||
      connection.ending != Ending::kEndless) {
    return result;
  }
  for (int block = 0; block < kEndlessBlocksAtOnce; ++block) {
    if (send(descriptor, filling.data(), filling.size(), MSG_NOSIGNAL) < 0) {
      return errno == EAGAIN ? PieceQueue::Result::kBlocked : PieceQueue::Result::kFailed;
    }
  }
  return PieceQueue::Result::kBlocked;
}

/// Asks for the events and the time at which there is something to do for the connection.
void TcpBus::Arm(Connection& connection, bool is_blocked) {
  std::uint32_t interest = is_blocked ? EPOLLOUT : 0U;
  if (connection.output.Size() < kMaxQueuedPieces) {
    interest |= EPOLLIN;
  }
  if (interest != connection.interest) {
    connection.interest = interest;
    loop_.Watch(connection.descriptor.Get(), connection.id, interest, EPOLL_CTL_MOD);
  }
  loop_.WakeAt(connection.id, is_blocked ? std::nullopt : connection.output.FirstDue());
}

}  // namespace tmsc::simulator
