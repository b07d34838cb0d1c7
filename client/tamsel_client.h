#ifndef TAMSEL_TAMSEL_CLIENT_H_
#define TAMSEL_TAMSEL_CLIENT_H_

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "request_builder.h"
#include "wire_records.h"

namespace tmsc {

/// Where the daemon listens unless its settings say otherwise.
constexpr const char* kDefaultSocketPath = TAMSEL_DEFAULT_SOCKET_PATH;

/// How an exchange with the daemon ended.
enum class Outcome {
  kAnswered,             // there is a response; look at its status
  kNotReachable,         // no daemon listens at the path; wait until it runs
  kTimedOut,             // the deadline passed; the daemon may still be busy with the request
  kClosedWithoutAnswer,  // the daemon refused the request, or ended; do not repeat it unchanged
  kSocketError,          // the local socket failed, see the text
};

struct ExchangeResult {
  Outcome outcome = Outcome::kSocketError;
  /// What happened, for people to read; empty when answered.
  std::string text;
  /// All zero unless answered.
  ResponseReceiveData response{};
};

/// One device's answer. On the TCP/IP path `status` is an OR of the kTCPIPUnitStatus bits, on the
/// RS485 path the serial library's receive status. `frame` is empty when there is no answer.
struct DeviceReply {
  byte status = 0;
  std::vector<byte> frame;
};

/// Talks to the daemon. An object holds no connection: each exchange opens its own and closes it,
/// so any number of threads may use one object at once.
class TAMSEL_API TamselClient {
 public:
  explicit TamselClient(std::string socket_path = kDefaultSocketPath);

  /// Connects, sends the request and receives the response, all within `deadline_ms` milliseconds
  /// on the monotonic clock. While the channel is busy that is repeated every 50 ms for `busy_ms`,
  /// each time with a deadline of its own. Blocks the calling thread, does not throw for anything
  /// that the daemon does or fails to do, and raises no SIGPIPE.
  ExchangeResult Exchange(const TcpIpRequest& request, int deadline_ms, int busy_ms = 0) const;
  ExchangeResult Exchange(const Rs485Request& request, int deadline_ms, int busy_ms = 0) const;

 private:
  ExchangeResult ExchangeBytes(const void* request, std::size_t size, int deadline_ms,
                               int busy_ms) const;

  std::string socket_path_;
};

/// The answer of the device with `address`; nothing when the address is not 1 to 31 or when the
/// slot's length is not 0 to 438. The slots of devices that were not in the request mean nothing.
TAMSEL_API std::optional<DeviceReply> DeviceAnswer(const ResponseReceiveData& response,
                                                   int address);

}  // namespace tmsc

#endif  // TAMSEL_TAMSEL_CLIENT_H_
