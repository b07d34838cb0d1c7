// The figures of the running daemon, as ratios to bare programs that do the same work. Pairs of
// runs alternate within one process, so that a machine whose speed changes slows both.

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bare_programs.h"
#include "child_process.h"
#include "modbus/rtu_frame.h"
#include "tamsel_client.h"
#include "vlm_rs485.h"

namespace tmsc::bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDeadlineMs = 10000;
constexpr int kPairs = 101;
const char kBin[] = TAMSEL_BIN_DIR;

double Milliseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::milli>(duration).count();
}

double Median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2),
                   values.end());
  return values[values.size() / 2];
}

double Time(const std::function<void()>& work) {
  const Clock::time_point start = Clock::now();
  work();
  return Milliseconds(Clock::now() - start);
}

void PrintPairs(const char* what, const std::function<void()>& measured,
                const std::function<void()>& bare) {
  std::vector<double> measured_ms;
  std::vector<double> bare_ms;
  std::vector<double> ratios;
  for (int i = 0; i < kPairs; ++i) {
    measured_ms.push_back(Time(measured));
    bare_ms.push_back(Time(bare));
    ratios.push_back(measured_ms.back() / bare_ms.back());
  }
  std::printf("%-52s %8.3f ms  bare %8.3f ms  ratio %5.2f\n", what, Median(measured_ms),
              Median(bare_ms), Median(ratios));
}

/// In memory where there is such a folder: health belongs there, and no disk is measured.
std::string MakeFolder() {
  const std::filesystem::path memory = "/dev/shm";
  const std::filesystem::path parent =
      std::filesystem::is_directory(memory) ? memory : std::filesystem::temp_directory_path();
  std::string name = (parent / "tamsel-bench-XXXXXX").string();
  if (::mkdtemp(name.data()) == nullptr) {
    throw std::runtime_error("no folder " + name);
  }
  return name;
}

/// A daemon with a settings file and a socket of its own. It tests pooled connections before it
/// uses them, so that it connects afresh, as the bare program does, to devices that close theirs.
class Daemon {
 public:
  Daemon(const std::string& folder, const std::string& log_level, bool has_health = false) {
    const std::string base = folder + (has_health ? "/health" : "/plain") + log_level;
    socket_path_ = base + ".com";
    const std::string settings = base + ".xml";
    std::ofstream(settings)
        << "<LoggerSetting><ComSocketPath>" << socket_path_ << "</ComSocketPath><SdcardPath>"
        << folder << "</SdcardPath><TamselComWatchdogFilePath>" << folder
        << "/check/tmsc</TamselComWatchdogFilePath><LogLevel>" << log_level
        << "</LogLevel><TcpReuseCheck>1</TcpReuseCheck><Rs485StartWait>0</Rs485StartWait>"
        << (has_health ? "<HealthFilePath>" + base + ".file</HealthFilePath>" : std::string())
        << "</LoggerSetting>";
    ::setenv("TAMSEL_SETTING_FILE", settings.c_str(), 1);
    start_ms_ = Time([&] {
      process_ = std::make_unique<ChildProcess>(
          std::vector<std::string>{std::string(kBin) + "/tamsel_communication"}, false);
      while (TamselClient(socket_path_).Exchange(MakeTcpIpRequest(1), kDeadlineMs).outcome !=
             Outcome::kAnswered) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    });
  }

  void Request(const TcpIpRequest& request) const {
    const ExchangeResult result = TamselClient(socket_path_).Exchange(request, kDeadlineMs);
    if (result.outcome != Outcome::kAnswered || result.response.receive_data.status != 0) {
      throw std::runtime_error("the daemon did not answer: " + result.text);
    }
    for (const NetworkParams& device : request.payload.port_params) {
      if (device.address != 0 &&
          result.response.receive_data.receive_data[device.address - 1].status != 0) {
        throw std::runtime_error("a device did not answer the daemon");
      }
    }
  }

  double StartMs() const { return start_ms_; }
  const std::string& SocketPath() const { return socket_path_; }
  const ChildProcess& Process() const { return *process_; }

 private:
  std::string socket_path_;
  double start_ms_ = 0;
  std::unique_ptr<ChildProcess> process_;
};

std::vector<Device> ReadDevices(ChildProcess& simulator) {
  std::vector<Device> devices;
  for (std::string line = simulator.ReadLine(); line != "ready"; line = simulator.ReadLine()) {
    std::istringstream words(line);
    std::string word;
    std::string place;
    Device device;
    words >> word >> device.address >> place;
    device.ip = place.substr(0, place.find(':'));
    device.port = std::stoi(place.substr(place.find(':') + 1));
    devices.push_back(device);
  }
  return devices;
}

TcpIpRequest RequestFor(const std::vector<Device>& devices, int channel, int timeout_ms) {
  TcpIpRequest request = MakeTcpIpRequest(channel);
  for (const Device& device : devices) {
    if (const BuildError error = AddTcpIpDevice(request, device.address, device.ip, device.port,
                                                timeout_ms, ReadFrame(device.address))) {
      throw std::runtime_error(*error);
    }
  }
  return request;
}

void MeasureDevices(const Daemon& daemon, const std::vector<Device>& devices, const char* what) {
  const TcpIpRequest request = RequestFor(devices, 1, 1000);
  const auto measured = [&] { daemon.Request(request); };
  const auto bare = [&] { ExchangeBare(devices); };
  PrintPairs(what, measured, bare);
}

void MeasureEcho(const Daemon& daemon, const std::string& folder) {
  const std::string path = folder + "/echo";
  const BareEcho echo(path);
  const TcpIpRequest request = MakeTcpIpRequest(1);
  const TamselClient echo_client(path);
  PrintPairs(
      "request without a device", [&] { daemon.Request(request); },
      [&] {
        if (echo_client.Exchange(request, kDeadlineMs).outcome != Outcome::kAnswered) {
          throw std::runtime_error("the echo did not answer");
        }
      });
}

/// What keeping the health costs: the same requests to two daemons that differ in nothing else.
void MeasureHealth(const std::string& folder, const std::vector<Device>& devices) {
  for (const std::string level : {"1", "3"}) {
    const Daemon with_health(folder, level, true);
    const Daemon without(folder, level);
    const std::string rest = ", LogLevel " + level + ", with health / without";
    const auto print = [&](std::string what, const TcpIpRequest& request) {
      PrintPairs(
          what.append(rest).c_str(), [&] { with_health.Request(request); },
          [&] { without.Request(request); });
    };
    print("31 devices", RequestFor(devices, 1, 1000));
    print("no device", MakeTcpIpRequest(1));
  }
}

void MeasureMemory(const Daemon& daemon, const std::vector<Device>& silent_devices) {
  std::vector<std::thread> clients;
  for (int channel = 1; channel <= kMaxChannel; ++channel) {
    clients.emplace_back([&, channel] {
      TamselClient(daemon.SocketPath())
          .Exchange(RequestFor(silent_devices, channel, 1000), kDeadlineMs);
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  std::printf("%-52s %8ld KiB  (%ld threads)\n", "resident with 93 devices in flight",
              daemon.Process().Status("VmRSS"), daemon.Process().Status("Threads"));
  for (std::thread& client : clients) {
    client.join();
  }
}

void MeasureIdle(const Daemon& daemon) {
  constexpr int kSeconds = 10;
  const double before = daemon.Process().CpuSeconds();
  std::this_thread::sleep_for(std::chrono::seconds(kSeconds));
  std::printf("%-52s %8.2f %% of a core\n", "idle",
              100 * (daemon.Process().CpuSeconds() - before) / kSeconds);
}

// The simulator's line: 11 bits a character, eight characters of request and seven of answer, 3.5
// before the answer; then the silence that the serial-line guide asks for above 19200 bits a
// second.
constexpr int kLineSpeed = 115200;
constexpr double kLineMsPerDevice = 1000.0 * 11 * (8 + 3.5 + 7) / kLineSpeed + 1.75;

/// Reads one register of each device, with Modbus RTU frames.
Rs485Request Rs485RequestForAll(int timeout_ms) {
  Rs485Request request = MakeRs485Request(1, VLM_RS485_BAUD_115200);
  for (int address = 1; address <= kMaxDeviceCountAtChannel; ++address) {
    const std::vector<byte> frame =
        modbus::RtuFrame(address, modbus::ReadRegistersPdu(modbus::kReadHoldingRegisters, 0, 1));
    const SetPortParams params = {
        static_cast<byte>(address), VLM_RS485_8N1, static_cast<std::int16_t>(timeout_ms), 0, 0, 0};
    if (const BuildError error = AddRs485Device(request, params, frame)) {
      throw std::runtime_error(*error);
    }
  }
  return request;
}

ExchangeResult ExchangeRs485(const Daemon& daemon, int timeout_ms) {
  return TamselClient(daemon.SocketPath()).Exchange(Rs485RequestForAll(timeout_ms), 60000);
}

void MeasureRs485(const std::string& folder) {
  const std::string bus = folder + "/bus";
  ::setenv("RS485_PORT_1", bus.c_str(), 1);
  ChildProcess field({std::string(kBin) + "/field_simulator", "--rtu-bus", bus + "=1-31",
                      "--rtu-baud", std::to_string(kLineSpeed)},
                     true);
  while (field.ReadLine() != "ready") {
  }
  const Daemon daemon(folder, "1", true);
  ExchangeRs485(daemon, 100);
  std::vector<double> times;
  const double cpu_before = daemon.Process().CpuSeconds();
  for (int i = 0; i < 21; ++i) {
    times.push_back(Time([&] {
      const ExchangeResult result = ExchangeRs485(daemon, 100);
      for (const DeviceReceiveData& slot : result.response.receive_data.receive_data) {
        if (result.outcome != Outcome::kAnswered || slot.status != VLM_RS485_ANSWERED) {
          throw std::runtime_error("a device of the bus did not answer");
        }
      }
    }));
  }
  const double cpu_ms = 1000 * (daemon.Process().CpuSeconds() - cpu_before) / 21;
  const double line_ms = kLineMsPerDevice * kMaxDeviceCountAtChannel;
  std::printf("%-52s %8.3f ms  line %8.3f ms  ratio %5.2f\n",
              "RS485, 31 devices, 115200 baud, with health", Median(times), line_ms,
              Median(times) / line_ms);
  std::printf("%-52s %8.3f ms\n", "RS485, processor time a cycle", cpu_ms);

  std::thread pull([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    field.Signal(SIGUSR1);
  });
  const double held = Time([&] { ExchangeRs485(daemon, 30000); });
  pull.join();
  std::printf("%-52s %8.3f ms after the pull\n", "RS485, channel held by a pulled adapter",
              held - 20);
}

void MeasureStart(const std::string& folder) {
  std::vector<double> with_health;
  std::vector<double> without;
  for (int i = 0; i < 21; ++i) {
    with_health.push_back(Daemon(folder, "1", true).StartMs());
    without.push_back(Daemon(folder, "1").StartMs());
  }
  std::printf("%-52s %8.3f ms  without health %8.3f ms\n", "start to first answer",
              Median(with_health), Median(without));
}

void Run(const std::string& folder) {
  std::printf("Times are medians of %d pairs; files are in %s\n", kPairs, folder.c_str());
  MeasureStart(folder);
  const std::string simulator_path = std::string(kBin) + "/field_simulator";
  ChildProcess closing({simulator_path, "--devices", "31", "--fault", "*=close-after"}, true);
  ChildProcess silent({simulator_path, "--devices", "31", "--fault", "*=silence"}, true);
  const std::vector<Device> closing_devices = ReadDevices(closing);
  const std::vector<Device> silent_devices = ReadDevices(silent);
  MeasureHealth(folder, closing_devices);
  {
    std::printf("with health:\n");
    const Daemon daemon(folder, "1", true);
    MeasureMemory(daemon, silent_devices);
    MeasureIdle(daemon);
    std::printf("without:\n");
  }
  {
    const Daemon daemon(folder, "1");
    MeasureMemory(daemon, silent_devices);
    MeasureIdle(daemon);
    MeasureEcho(daemon, folder);
    MeasureDevices(daemon, closing_devices, "31 devices that answer and close, default log level");
  }
  MeasureRs485(folder);
  const Daemon daemon(folder, "3");
  MeasureDevices(daemon, closing_devices, "31 devices that answer and close, LogLevel 3");
}

}  // namespace

}  // namespace tmsc::bench

int main() {
  std::string folder;
  int status = 0;
  try {
    folder = tmsc::bench::MakeFolder();
    tmsc::bench::Run(folder);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "daemon_bench: %s\n", failure.what());
    status = 1;
  }
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
  return status;
}
