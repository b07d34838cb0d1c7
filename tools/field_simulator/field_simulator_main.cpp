// Modbus/TCP and Modbus RTU devices with faults, for development, tests and demonstrations.

#include <signal.h>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdint>
#include <iostream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "fault.h"
#include "field_simulator.h"

namespace {

using tmsc::simulator::Fault;
using tmsc::simulator::FieldSimulator;
using tmsc::simulator::FieldSimulatorConfig;
using tmsc::simulator::RtuBusConfig;

constexpr int kExitUsage = 2;
constexpr int kMaxDevices = 1000;
constexpr int kMaxPort = 65535;
constexpr int kMaxAddress = 247;
/// Stands for the bus of the TCP devices in --fault.
constexpr const char* kTcpName = "tcp";

struct Options {
  /// Empty: one, or none when there is a bus.
  std::optional<int> devices;
  std::string address = "127.0.0.1";
  int base_port = 0;
  bool is_same_port = false;
  std::vector<std::string> buses;
  int baud_rate = 0;
  bool is_echoing = false;
  std::vector<std::string> faults;
};

void AddOptions(CLI::App& app, Options& options) {
  app.add_option("--devices", options.devices,
                 "number of TCP devices, addresses 1 to N [1; 0 when there is a bus]")
      ->check(CLI::Range(0, kMaxDevices));
  app.add_option("--address", options.address, "IPv4 address to listen on")
      ->check(CLI::ValidIPV4)
      ->capture_default_str();
  app.add_option("--base-port", options.base_port,
                 "device n listens on this port + n - 1; 0: each on a free one")
      ->check(CLI::Range(0, kMaxPort))
      ->capture_default_str();
  app.add_flag("--same-port", options.is_same_port,
               "all devices on one port, as behind a gateway; the unit id chooses the device");
  app.add_option("--rtu-bus", options.buses,
                 "an RS485 bus: PATH becomes a symbolic link to its terminal, with Modbus RTU "
                 "devices at the addresses, numbers or ranges A-B; repeatable. SIGUSR1 pulls all "
                 "adapters out, SIGUSR2 plugs them in again")
      ->type_name("PATH=ADDRESS[,ADDRESS...]")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--rtu-baud", options.baud_rate,
                 "answers on a bus come at the pace of this baud rate; 0: at once")
      ->check(CLI::Range(0, 10000000))
      ->capture_default_str();
  app.add_flag("--rtu-echo", options.is_echoing,
               "the adapter of each bus hears what it sends: requests come back, too");
  app.add_option("--fault", options.faults,
                 "devices with this address have the fault, those of a bus PATH with "
                 "PATH:ADDRESS=FAULT, TCP devices with tcp:ADDRESS=FAULT; ADDRESS * is every one; "
                 "repeatable, the last one counts")
      ->type_name("ADDRESS=FAULT")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.footer(tmsc::simulator::FaultHelp());
}

int ParseAddress(const std::string& text, const std::string& option) {
  int address = 0;
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, address);
  if (result.ec != std::errc() || result.ptr != end || address < 1 || address > kMaxAddress) {
    throw std::invalid_argument("--rtu-bus " + option + ": \"" + text + "\" is not an address");
  }
  return address;
}

RtuBusConfig ParseBus(const std::string& option, const Options& options) {
  const std::size_t equals = option.rfind('=');
  if (equals == std::string::npos) {
    throw std::invalid_argument("--rtu-bus " + option + ": expected PATH=ADDRESS,...");
  }
  RtuBusConfig bus;
  bus.path = option.substr(0, equals);
  bus.baud_rate = options.baud_rate;
  bus.is_echoing = options.is_echoing;
  std::istringstream items(option.substr(equals + 1));
  for (std::string item; std::getline(items, item, ',');) {
    const std::size_t dash = item.find('-');
    const int first = ParseAddress(item.substr(0, dash), option);
    const int last =
        dash == std::string::npos ? first : ParseAddress(item.substr(dash + 1), option);
    if (last < first) {
      throw std::invalid_argument("--rtu-bus " + option + ": a range is empty");
    }
    for (int address = first; address <= last; ++address) {
      bus.devices.push_back({address, {}});
    }
  }
  if (bus.devices.empty()) {
    throw std::invalid_argument("--rtu-bus " + option + ": there is no device");
  }
  return bus;
}

/// Gives the fault to every device with this address; true when there is one.
template <typename DeviceConfig>
bool SetFault(const std::string& address, const Fault& fault, std::vector<DeviceConfig>& devices) {
  bool is_found = false;
  for (DeviceConfig& device : devices) {
    if (address == "*" || address == std::to_string(device.address)) {
      device.fault = fault;
      is_found = true;
    }
  }
  return is_found;
}

void ApplyFault(const std::string& text, FieldSimulatorConfig& config) {
  const std::size_t equals = text.rfind('=');
  if (equals == std::string::npos) {
    throw std::invalid_argument("--fault " + text + ": expected ADDRESS=FAULT");
  }
  const std::string whole = text.substr(0, equals);
  const std::size_t colon = whole.rfind(':');
  const std::string name = colon == std::string::npos ? "" : whole.substr(0, colon);
  const std::string address = colon == std::string::npos ? whole : whole.substr(colon + 1);
  const Fault fault = Fault::Parse(text.substr(equals + 1));
  bool is_found = false;
  if (name.empty() || name == kTcpName) {
    is_found = SetFault(address, fault, config.devices);
  }
  for (RtuBusConfig& bus : config.buses) {
    if (name.empty() || name == bus.path) {
      is_found = SetFault(address, fault, bus.devices) || is_found;
    }
  }
  if (!is_found) {
    throw std::invalid_argument("--fault " + text + ": there is no device " + whole);
  }
}

/// Throws std::invalid_argument when the options contradict each other.
FieldSimulatorConfig MakeConfig(const Options& options) {
  const int devices = options.devices.value_or(options.buses.empty() ? 1 : 0);
  if (devices == 0 && options.buses.empty()) {
    throw std::invalid_argument("--devices 0 leaves nothing to simulate without a bus");
  }
  if (options.base_port != 0 && !options.is_same_port &&
      options.base_port + devices - 1 > kMaxPort) {
    throw std::invalid_argument("--base-port " + std::to_string(options.base_port) +
                                " leaves no room for " + std::to_string(devices) + " devices");
  }
  FieldSimulatorConfig config;
  config.is_same_port = options.is_same_port;
  for (int address = 1; address <= devices; ++address) {
    const int offset = options.base_port == 0 || options.is_same_port ? 0 : address - 1;
    config.devices.push_back(
        {address, options.address, static_cast<std::uint16_t>(options.base_port + offset), {}});
  }
  for (const std::string& bus : options.buses) {
    config.buses.push_back(ParseBus(bus, options));
  }
  for (const std::string& fault : options.faults) {
    ApplyFault(fault, config);
  }
  return config;
}

/// Many devices with a connection each need more descriptors than a shell grants at first.
void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

/// The addresses as numbers and ranges: "1-3,7".
std::string AddressText(const RtuBusConfig& bus) {
  std::string text;
  for (std::size_t index = 0; index < bus.devices.size(); ++index) {
    const int first = bus.devices[index].address;
    while (index + 1 < bus.devices.size() &&
           bus.devices[index + 1].address == bus.devices[index].address + 1) {
      ++index;
    }
    const int last = bus.devices[index].address;
    text.append(text.empty() ? "" : ",").append(std::to_string(first));
    if (last > first) {
      text.append("-").append(std::to_string(last));
    }
  }
  return text;
}

void PrintBuses(const FieldSimulator& simulator, const FieldSimulatorConfig& config) {
  for (std::size_t bus = 0; bus < config.buses.size(); ++bus) {
    const std::string terminal = simulator.TerminalName(bus);
    std::cout << "bus " << config.buses[bus].path << ' '
              << (terminal.empty() ? "unplugged" : terminal) << " devices "
              << AddressText(config.buses[bus]) << '\n';
  }
  std::cout << std::flush;
}

/// Follows the signals until one ends the program.
void FollowSignals(const sigset_t& signals, FieldSimulator& simulator,
                   const FieldSimulatorConfig& config) {
  int received = 0;
  while (sigwait(&signals, &received) == 0 && (received == SIGUSR1 || received == SIGUSR2)) {
    for (std::size_t bus = 0; bus < config.buses.size(); ++bus) {
      if (received == SIGUSR1) {
        simulator.Unplug(bus);
      } else {
        simulator.Plug(bus);
      }
    }
    PrintBuses(simulator, config);
  }
}

void Serve(const FieldSimulatorConfig& config) {
  FieldSimulator simulator(config);
  // Blocked before the simulator's thread starts, so that only the wait below takes them.
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal_number : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2}) {
    sigaddset(&signals, signal_number);
  }
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  simulator.Start();
  for (const auto& device : config.devices) {
    std::cout << "device " << device.address << ' ' << device.bind_address << ':'
              << simulator.Port(device.address) << '\n';
  }
  PrintBuses(simulator, config);
  std::cout << "ready" << std::endl;
  FollowSignals(signals, simulator, config);
  simulator.Stop();
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Simulates Modbus/TCP and Modbus RTU devices that make mistakes on demand.",
               "field_simulator");
  Options options;
  AddOptions(app, options);
  try {
    app.parse(argc, argv);
    RaiseDescriptorLimit();
    Serve(MakeConfig(options));
    return 0;
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kExitUsage;
  } catch (const std::invalid_argument& error) {
    std::cerr << "field_simulator: " << error.what() << '\n';
    return kExitUsage;
  } catch (const std::exception& error) {
    std::cerr << "field_simulator: " << error.what() << '\n';
    return 1;
  }
}
