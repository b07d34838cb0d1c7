// Modbus/TCP devices with faults, for development, tests and demonstrations.

#include <signal.h>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdint>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "fault.h"
#include "field_simulator.h"

namespace {

using tmsc::simulator::Fault;
using tmsc::simulator::FieldSimulator;
using tmsc::simulator::FieldSimulatorConfig;

constexpr int kExitUsage = 2;
constexpr int kMaxDevices = 1000;
constexpr int kMaxPort = 65535;

struct Options {
  int devices = 1;
  std::string address = "127.0.0.1";
  int base_port = 0;
  bool same_port = false;
  std::vector<std::string> faults;
};

void AddOptions(CLI::App* app, Options* options) {
  app->add_option("--devices", options->devices, "number of devices, addresses 1 to N")
      ->check(CLI::Range(1, kMaxDevices))
      ->capture_default_str();
  app->add_option("--address", options->address, "IPv4 address to listen on")
      ->check(CLI::ValidIPV4)
      ->capture_default_str();
  app->add_option("--base-port", options->base_port,
                  "device n listens on this port + n - 1; 0: each on a free one")
      ->check(CLI::Range(0, kMaxPort))
      ->capture_default_str();
  app->add_flag("--same-port", options->same_port,
                "all devices on one port, as behind a gateway; the unit id chooses the device");
  app->add_option("--fault", options->faults,
                  "ADDRESS=FAULT, or *=FAULT for all devices; repeatable, the last one counts")
      ->type_name("ADDRESS=FAULT")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app->footer(tmsc::simulator::FaultHelp());
}

void ApplyFault(const std::string& text, FieldSimulatorConfig* config) {
  const std::size_t equals = text.find('=');
  if (equals == std::string::npos) {
    throw std::invalid_argument("--fault " + text + ": expected ADDRESS=FAULT");
  }
  const std::string address = text.substr(0, equals);
  const Fault fault = Fault::Parse(text.substr(equals + 1));
  bool found = false;
  for (auto& device : config->devices) {
    if (address == "*" || address == std::to_string(device.address)) {
      device.fault = fault;
      found = true;
    }
  }
  if (!found) {
    throw std::invalid_argument("--fault " + text + ": there is no device " + address);
  }
}

/// Throws std::invalid_argument when the options contradict each other.
FieldSimulatorConfig MakeConfig(const Options& options) {
  if (options.base_port != 0 && !options.same_port &&
      options.base_port + options.devices - 1 > kMaxPort) {
    throw std::invalid_argument("--base-port " + std::to_string(options.base_port) +
                                " leaves no room for " + std::to_string(options.devices) +
                                " devices");
  }
  FieldSimulatorConfig config;
  config.same_port = options.same_port;
  for (int address = 1; address <= options.devices; ++address) {
    const int offset = options.base_port == 0 || options.same_port ? 0 : address - 1;
    config.devices.push_back(
        {address, options.address, static_cast<std::uint16_t>(options.base_port + offset), {}});
  }
  for (const std::string& fault : options.faults) {
    ApplyFault(fault, &config);
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

void Serve(FieldSimulator* simulator, const Options& options) {
  // Blocked before the simulator's thread starts, so that only the wait below takes them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  simulator->Start();
  for (int address = 1; address <= options.devices; ++address) {
    std::cout << "device " << address << ' ' << options.address << ':' << simulator->Port(address)
              << '\n';
  }
  std::cout << "ready" << std::endl;
  int received = 0;
  sigwait(&signals, &received);
  simulator->Stop();
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Simulates Modbus/TCP devices that make mistakes on demand.", "field_simulator");
  Options options;
  AddOptions(&app, &options);
  try {
    app.parse(argc, argv);
    RaiseDescriptorLimit();
    FieldSimulator simulator(MakeConfig(options));
    Serve(&simulator, options);
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
