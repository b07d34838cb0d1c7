#include "field_simulator.h"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <utility>

#include "tcp_bus.h"

namespace tmsc::simulator {
namespace {

/// Unit ids above are reserved in Modbus.
constexpr int kLargestUnitId = 247;

void Check(const FieldSimulatorConfig& config) {
  std::set<int> addresses;
  for (const DeviceConfig& device : config.devices) {
    const std::string name = "device " + std::to_string(device.address);
    if (device.address < 1 || (config.same_port && device.address > kLargestUnitId)) {
      throw std::invalid_argument(name + ": the address is out of range");
    }
    if (!addresses.insert(device.address).second) {
      throw std::invalid_argument(name + " is there twice");
    }
    if (config.same_port && device.fault.Kind() == FaultKind::kRefuse) {
      throw std::invalid_argument(name + " cannot refuse behind a shared port");
    }
  }
}

}  // namespace

FieldSimulator::FieldSimulator(FieldSimulatorConfig config) : config_(std::move(config)) {
  Check(config_);
  for (const DeviceConfig& device : config_.devices) {
    devices_.push_back(std::make_unique<SimulatedDevice>(device.address, device.fault));
  }
  bus_ = std::make_unique<TcpBus>();
}

FieldSimulator::~FieldSimulator() {
  Stop();
}

void FieldSimulator::Start() {
  std::vector<SimulatedDevice*> behind_port;
  for (std::size_t index = 0; index < devices_.size(); ++index) {
    behind_port.push_back(devices_[index].get());
    if (!config_.same_port || index + 1 == devices_.size()) {
      const DeviceConfig& endpoint = config_.devices[config_.same_port ? 0 : index];
      bus_->AddListener(endpoint.bind_address, endpoint.port, config_.same_port,
                        std::exchange(behind_port, {}));
    }
  }
  bus_->Start();
}

void FieldSimulator::Stop() {
  bus_->Stop();
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
  return bus_->Port(Device(address));
}

void FieldSimulator::SetFault(int address, const Fault& fault) {
  bus_->SetFault(&Device(address), fault);
}

std::uint64_t FieldSimulator::ConnectionsAccepted(int address) const {
  return bus_->ConnectionsAccepted(Device(address));
}

std::uint64_t FieldSimulator::RequestsReceived(int address) const {
  return Device(address).requests;
}

std::uint64_t FieldSimulator::OpenConnections() const {
  return bus_->OpenConnections();
}

}  // namespace tmsc::simulator
