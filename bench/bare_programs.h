/// What the daemon is compared with: the same work done by a program that does nothing else.
#ifndef TAMSEL_BENCH_BARE_PROGRAMS_H_
#define TAMSEL_BENCH_BARE_PROGRAMS_H_

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "communication_common.h"
#include "utility/descriptor.h"

namespace tmsc::bench {

struct Device {
  int address = 0;
  std::string ip;
  int port = 0;
};

/// The bytes of "read holding registers 0 and 1" to the device.
std::vector<byte> ReadFrame(int address);

/// One exchange with each device, each on a thread of its own over a connection of its own:
/// connect, send, receive until the device closes. Throws std::runtime_error when a device does not
/// answer.
void ExchangeBare(const std::vector<Device>& devices);

/// Reads a request record and writes a response record on each connection to a Unix-domain socket;
/// connections are accepted by one thread and served by another.
class BareEcho {
 public:
  explicit BareEcho(const std::string& path);
  ~BareEcho();
  BareEcho(const BareEcho&) = delete;
  BareEcho& operator=(const BareEcho&) = delete;

 private:
  void Accept();
  void Serve();

  Descriptor listening_socket_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Descriptor> accepted_;  // guarded by mutex_
  bool is_ended_ = false;             // guarded by mutex_
  std::thread accept_thread_;
  std::thread serve_thread_;
};

}  // namespace tmsc::bench

#endif  // TAMSEL_BENCH_BARE_PROGRAMS_H_
