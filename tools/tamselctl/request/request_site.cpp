#include "request/request_site.h"

#include <algorithm>
#include <set>
#include <string>
#include <utility>

#include "modbus/pdu.h"
#include "shared/nearest_word.h"
#include "shared/site.h"
#include "shared/usage.h"

namespace tmsc::ctl {
namespace {

/// Names as they were given, and whether each was found.
class Selection {
 public:
  explicit Selection(const std::vector<std::string>& names) : names_(names) {
    for (const std::string& name : names) {
      ids_.insert(IdOf(name));
    }
  }

  bool Takes(const std::string& id) {
    known_.push_back(id);
    return TakesAll() || ids_.count(id) != 0;
  }

  bool TakesAll() const { return ids_.empty() || ids_.count(kAllDevices) != 0; }

  void RequireAll(const std::string& option, const std::string& what) const {
    constexpr std::size_t kMostTypingErrors = 2;
    for (const std::string& name : names_) {
      const std::string id = IdOf(name);
      if (id != kAllDevices && std::find(known_.begin(), known_.end(), id) == known_.end()) {
        const std::string nearest = NearestWord(id, known_, kMostTypingErrors);
        ThrowUsage(option, "no " + what + " " + name + " in the site" +
                               (nearest.empty() ? "" : "; did you mean " + nearest + "?"));
      }
    }
  }

 private:
  const std::vector<std::string> names_;
  std::set<std::string> ids_;
  std::vector<std::string> known_;
};

Question MakeQuestion(const Bus& bus, const SiteDevice& device, const SiteRegister& item,
                      bool is_only, int transaction) {
  Question question;
  question.device.address = device.address;
  question.device.unit = device.unit_id;
  question.device.ip_address = device.ip_address;
  question.device.port = device.port;
  question.device.frame =
      MakeFrame(bus, transaction, device.unit_id,
                modbus::ReadRegistersPdu(item.function, item.start, item.count));
  question.name = device.name;
  question.register_name = item.name;
  question.label = device.name + (is_only ? "" : ", " + item.name);
  question.type = modbus::IsBitRead(item.function) ? std::nullopt : std::optional(item.type);
  question.word_order = item.word_order;
  question.scale = item.scale;
  question.unit = item.unit;
  return question;
}

// Adds what is asked of one device: its n-th register goes into the n-th request. False when it is
// asked nothing.
bool AddDevice(const Bus& bus, const SiteDevice& device, Selection& registers,
               std::vector<Batch>& batches) {
  std::vector<SiteRegister> asked;
  std::copy_if(device.registers.begin(), device.registers.end(), std::back_inserter(asked),
               [&](const SiteRegister& item) { return registers.Takes(IdOf(item.name)); });
  for (std::size_t index = 0; index < asked.size(); ++index) {
    if (index == batches.size()) {
      batches.emplace_back();
      batches.back().bus = bus;
    }
    std::vector<Question>& questions = batches[index].questions;
    questions.push_back(MakeQuestion(bus, device, asked[index], asked.size() == 1,
                                     static_cast<int>(questions.size()) + 1));
  }
  return !asked.empty();
}

}  // namespace

std::vector<Batch> MakeSiteBatches(const Options& options) {
  const Site site = RequireSite("--site", options.site);
  if (options.names.empty()) {
    ThrowUsage("--site", "name the devices to ask, or all");
  }
  Selection devices(options.names);
  Selection registers(options.registers);
  std::vector<Batch> batches;
  std::vector<std::string> mute;
  for (const SiteBus& bus : site.buses) {
    std::vector<Batch> of_bus;
    for (const SiteDevice& device : bus.devices) {
      if (devices.Takes(device.id) && !AddDevice(bus.bus, device, registers, of_bus) &&
          !devices.TakesAll()) {
        mute.push_back(device.name);
      }
    }
    std::move(of_bus.begin(), of_bus.end(), std::back_inserter(batches));
  }
  devices.RequireAll("--site", "device");
  registers.RequireAll("--register", "register of these devices");
  if (!mute.empty() || batches.empty()) {
    ThrowUsage("--site", (mute.empty() ? "the site" : mute.front()) + " has no register to read");
  }
  return batches;
}

}  // namespace tmsc::ctl
