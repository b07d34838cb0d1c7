#include "field_simulator.h"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <utility>

#include "event_loop.h"
#include "rtu_bus.h"
#include "tcp_bus.h"

namespace tmsc::simulator {
namespace {

/// Unit ids above are reserved in Modbus.
constexpr int kLargestUnitId = 247;
constexpr std::size_t kMaxDevicesOnBus = 31;

void CheckTcpDevices(const FieldSimulatorConfig& config) {
  std::set<int> addresses;
  for (const DeviceConfig& device : config.devices) {
    const std::string name = "device " + std::to_string(device.address);
    if (device.address < 1 || (config.is_same_port && device.address > kLargestUnitId)) {
      throw std::invalid_argument(name + ": the address is out of range");
    }
    if (!addresses.insert(device.address).second) {
      throw std::invalid_argument(name + " is there twice");
    }
    if (config.is_same_port && device.fault.IsAtConnect()) {
      throw std::invalid_argument(name +
                                  " cannot have a fault at the connect behind a shared port");
    }
    device.fault.CheckTransport(Transport::kTcp);
  }
}

void CheckBus(const RtuBusConfig& bus) {
  if (bus.path.empty() || bus.baud_rate < 0 || bus.devices.size() > kMaxDevicesOnBus) {
    throw std::invalid_argument("bus \"" + bus.path +
                                "\": it needs a path, a baud rate of 0 or more" + " and at most " +
                                std::to_string(kMaxDevicesOnBus) + " devices");
  }
  std::set<int> addresses;
  for (const RtuDeviceConfig& device : bus.devices) {
    const std::string name = "bus " + bus.path + ": device " + std::to_string(device.address);
    if (device.address < 1 || device.address > kLargestUnitId) {
      throw std::invalid_argument(name + ": the address is out of range");
    }
    if (!addresses.insert(device.address).second) {
      throw std::invalid_argument(name + " is there twice");
    }
    device.fault.CheckTransport(Transport::kRtu);
  }
}

void Check(const FieldSimulatorConfig& config) {
  CheckTcpDevices(config);
  std::set<std::string> paths;
  for (const RtuBusConfig& bus : config.buses) {
    CheckBus(bus);
    if (!paths.insert(bus.path).second) {
      throw std::invalid_argument("bus " + bus.path + " is there twice");
    }
  }
}

}  // namespace

FieldSimulator::FieldSimulator(FieldSimulatorConfig config) : config_(std::move(config)) {
  Check(config_);
  for (const DeviceConfig& device : config_.devices) {
    devices_.push_back(std::make_unique<SimulatedDevice>(device.address, device.fault));
  }
  loop_ = std::make_unique<EventLoop>();
  tcp_bus_ = std::make_unique<TcpBus>(*loop_);
  for (const RtuBusConfig& config_of_bus : config_.buses) {
    auto bus = std::make_unique<RtuBus>(*loop_, config_of_bus.path, config_of_bus.baud_rate,
                                        config_of_bus.is_echoing);
    for (const RtuDeviceConfig& device : config_of_bus.devices) {
      bus->AddDevice(device.address, device.fault);
    }
    rtu_buses_.push_back(std::move(bus));
  }
}

FieldSimulator::~FieldSimulator() {
  Stop();
}

void FieldSimulator::Start() {
  std::vector<SimulatedDevice*> behind_port;
  for (std::size_t index = 0; index < devices_.size(); ++index) {
    behind_port.push_back(devices_[index].get());
    if (!config_.is_same_port || index + 1 == devices_.size()) {
      const DeviceConfig& endpoint = config_.devices[config_.is_same_port ? 0 : index];
      tcp_bus_->AddListener(endpoint.bind_address, endpoint.port, config_.is_same_port,
                            std::exchange(behind_port, {}));
    }
  }
  std::for_each(rtu_buses_.begin(), rtu_buses_.end(), [](const auto& bus) { bus->Plug(); });
  loop_->Start();
}

void FieldSimulator::Stop() {
  loop_->Stop();
  tcp_bus_->Close();
  std::for_each(rtu_buses_.begin(), rtu_buses_.end(), [](const auto& bus) { bus->Unplug(); });
}

SimulatedDevice& FieldSimulator::Device(int address) const {
  const auto device = std::find_if(devices_.begin(), devices_.end(), [address](const auto& each) {
    return each->registers.Address() == address;
  });
  if (device == devices_.end()) {
    throw std::out_of_range("there is no device " + std::to_string(address));
  }
  return **device;
}

std::uint16_t FieldSimulator::Port(int address) const {
  return tcp_bus_->Port(Device(address));
}

void FieldSimulator::SetFault(int address, const Fault& fault) {
  fault.CheckTransport(Transport::kTcp);
  tcp_bus_->SetFault(Device(address), fault);
}

void FieldSimulator::SetFault(std::size_t bus, int address, const Fault& fault) {
  rtu_buses_.at(bus)->SetFault(address, fault);
}

void FieldSimulator::Unplug(std::size_t bus) {
  rtu_buses_.at(bus)->Unplug();
}

void FieldSimulator::Plug(std::size_t bus) {
  rtu_buses_.at(bus)->Plug();
}

std::string FieldSimulator::TerminalName(std::size_t bus) const {
  return rtu_buses_.at(bus)->TerminalName();
}

std::uint64_t FieldSimulator::ConnectionsAccepted(int address) const {
  return tcp_bus_->ConnectionsAccepted(Device(address));
}

std::uint64_t FieldSimulator::RequestsReceived(int address) const {
  return Device(address).requests;
}

std::uint64_t FieldSimulator::RequestsReceived(std::size_t bus, int address) const {
  return rtu_buses_.at(bus)->RequestsReceived(address);
}

std::uint64_t FieldSimulator::OpenConnections() const {
  return tcp_bus_->OpenConnections();
}

}  // namespace tmsc::simulator
