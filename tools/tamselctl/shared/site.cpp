#include "shared/site.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <limits>
#include <map>
#include <set>
#include <system_error>
#include <utility>

#include "modbus/pdu.h"
#include "shared/json_tree.h"
#include "shared/nearest_word.h"
#include "shared/printable.h"
#include "shared/regular_file.h"
#include "shared/usage.h"
#include "utility/descriptor.h"

namespace tmsc::ctl {
namespace {

constexpr std::size_t kMostTypingErrors = 2;

/// Gathers what is wrong, by the place in the text.
class Mistakes {
 public:
  void Add(std::size_t offset, const std::string& text) { list_.emplace_back(offset, text); }

  std::vector<SiteMistake> InOrder(const std::string& text) {
    std::stable_sort(list_.begin(), list_.end(),
                     [](const auto& left, const auto& right) { return left.first < right.first; });
    std::vector<SiteMistake> mistakes;
    for (const auto& [offset, words] : list_) {
      const TextPlace place = PlaceOf(text, offset);
      mistakes.push_back({place.line, place.column, words});
    }
    return mistakes;
  }

 private:
  std::vector<std::pair<std::size_t, std::string>> list_;
};

std::string Quoted(const std::string& text) {
  return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

/// The members of one object of the file. What is missing, of another type or out of range becomes
/// a mistake and the value given as default.
class Fields {
 public:
  Fields(const JsonValue& object, std::string what, const std::vector<std::string>& known,
         Mistakes& mistakes)
      : object_(object), what_(std::move(what)), mistakes_(mistakes) {
    if (!object.value.is_object()) {
      mistakes.Add(object.offset, what_ + " is no object, { ... }");
      return;
    }
    std::set<std::string> seen;
    for (const JsonValue& member : object.values) {
      if (!seen.insert(member.key).second) {
        mistakes.Add(member.key_offset, "doubled key " + Quoted(member.key));
      } else if (std::find(known.begin(), known.end(), member.key) == known.end()) {
        const std::string nearest = NearestWord(member.key, known, kMostTypingErrors);
        mistakes.Add(member.key_offset,
                     "unknown key " + Quoted(member.key) + " in " + what_ +
                         (nearest.empty() ? "" : "; did you mean " + Quoted(nearest) + "?"));
      }
    }
  }

  const JsonValue* Find(const std::string& key) const {
    const auto found = std::find_if(object_.values.begin(), object_.values.end(),
                                    [&](const JsonValue& member) { return member.key == key; });
    return found == object_.values.end() ? nullptr : &*found;
  }

  const JsonValue* Require(const std::string& key) const {
    const JsonValue* value = Find(key);
    if (value == nullptr && object_.value.is_object()) {
      mistakes_.Add(object_.offset, what_ + " without " + Quoted(key));
    }
    return value;
  }

  /// `value` is the member, or null when there is none.
  int Number(const JsonValue* value, int least, int most, int fallback) const {
    if (value == nullptr) {
      return fallback;
    }
    const auto& number = value->value;
    const bool is_right = number.is_number_unsigned()
                              ? number.get<std::uint64_t>() >= static_cast<std::uint64_t>(least) &&
                                    number.get<std::uint64_t>() <= static_cast<std::uint64_t>(most)
                              : false;
    if (!is_right) {
      mistakes_.Add(value->offset, Quoted(value->key) + " is not a whole number of " +
                                       std::to_string(least) + " to " + std::to_string(most));
      return fallback;
    }
    return number.get<int>();
  }

  std::string Text(const JsonValue* value) const {
    if (value == nullptr) {
      return {};
    }
    const bool is_text = value->value.is_string();
    auto text = is_text ? value->value.get<std::string>() : std::string();
    if (text.empty() || text != Printable(text)) {
      mistakes_.Add(value->offset, Quoted(value->key) + " is not a text of printable characters");
      return {};
    }
    return text;
  }

  /// What `parse` makes of a text; nothing, and a mistake that names the `choices`, when that is
  /// nothing.
  template <typename Parse>
  auto Choice(const JsonValue* value, Parse parse, const std::string& choices) const
      -> decltype(parse(std::string())) {
    if (value == nullptr) {
      return std::nullopt;
    }
    auto result = value->value.is_string() ? parse(value->value.get<std::string>()) : std::nullopt;
    if (!result) {
      mistakes_.Add(value->offset, Quoted(value->key) + " is not one of " + choices);
    }
    return result;
  }

  const std::vector<JsonValue>& List(const JsonValue* value) const {
    static const std::vector<JsonValue>& kNone = *new std::vector<JsonValue>();
    if (value != nullptr && !value->value.is_array()) {
      mistakes_.Add(value->offset, Quoted(value->key) + " is no list, [ ... ]");
    }
    return value != nullptr && value->value.is_array() ? value->values : kNone;
  }

  void Forbid(const std::string& key, const std::string& why) const {
    if (const JsonValue* value = Find(key)) {
      mistakes_.Add(value->key_offset, Quoted(key) + " " + why);
    }
  }

 private:
  const JsonValue& object_;
  const std::string what_;
  Mistakes& mistakes_;
};

std::optional<byte> ParseFunction(const std::string& name) {
  static const std::map<std::string, byte>& kFunctions =
      *new std::map<std::string, byte>{{"holding", modbus::kReadHoldingRegisters},
                                       {"input", modbus::kReadInputRegisters},
                                       {"coil", modbus::kReadCoils},
                                       {"discrete", modbus::kReadDiscreteInputs}};
  const auto found = kFunctions.find(name);
  return found == kFunctions.end() ? std::nullopt : std::optional(found->second);
}

/// Builds a site out of the tree of its file.
class SiteBuilder {
 public:
  SiteBuilder(const JsonValue& root, Mistakes& mistakes) : mistakes_(mistakes) {
    const Fields fields(root, "the site", {"name", "kinds", "buses"}, mistakes);
    site_.name = fields.Text(fields.Find("name"));
    TakeKinds(fields.Find("kinds"));
    for (const JsonValue& bus : fields.List(fields.Require("buses"))) {
      TakeBus(bus);
    }
  }

  Site Take() { return std::move(site_); }

 private:
  void TakeKinds(const JsonValue* kinds) {
    if (kinds == nullptr) {
      return;
    }
    if (!kinds->value.is_object()) {
      mistakes_.Add(kinds->offset, "\"kinds\" is no object, { ... }");
    }
    for (const JsonValue& kind : kinds->values) {
      if (kinds_.count(kind.key) != 0) {
        mistakes_.Add(kind.key_offset, "doubled key " + Quoted(kind.key));
      }
      TakeKind(kind, kinds_[kind.key]);
    }
  }

  void TakeKind(const JsonValue& kind, std::vector<SiteRegister>& registers) {
    if (!kind.value.is_array()) {
      mistakes_.Add(kind.offset, "the kind " + Quoted(kind.key) + " is no list of registers");
    }
    std::set<std::string> ids;
    for (const JsonValue& item : kind.values) {
      const SiteRegister taken = TakeRegister(item);
      if (!taken.name.empty() && !ids.insert(IdOf(taken.name)).second) {
        mistakes_.Add(item.offset,
                      "doubled register " + Quoted(taken.name) + " of " + Quoted(kind.key));
      }
      registers.push_back(taken);
    }
  }

  SiteRegister TakeRegister(const JsonValue& item) {
    const Fields fields(
        item, "a register",
        {"name", "function", "start", "count", "type", "word_order", "scale", "unit"}, mistakes_);
    constexpr int kMostStart = 0xFFFF;
    SiteRegister result;
    result.name = fields.Text(fields.Require("name"));
    result.function =
        fields.Choice(fields.Find("function"), ParseFunction, "holding, input, coil, discrete")
            .value_or(modbus::kReadHoldingRegisters);
    result.start = fields.Number(fields.Require("start"), 0, kMostStart, 0);
    result.type = fields.Choice(fields.Find("type"), ParseValueType, kValueTypeNames)
                      .value_or(ValueType::kU16);
    result.word_order = fields.Choice(fields.Find("word_order"), ParseWordOrder, "big, little")
                            .value_or(WordOrder::kBig);
    result.unit = fields.Text(fields.Find("unit"));
    TakeScale(fields, result);
    const bool is_bit = modbus::IsBitRead(result.function);
    if (is_bit) {
      fields.Forbid("type", "means nothing for a coil or discrete input");
    }
    const bool is_text = result.type == ValueType::kString && !is_bit;
    if (is_text) {
      result.count = fields.Number(fields.Require("count"), 1, modbus::kMaxReadRegisters, 1);
    } else {
      fields.Forbid("count", "stands with type \"string\" only");
      result.count = is_bit ? 1 : std::max(1, RegistersOf(result.type));
    }
    if (result.start + result.count > kMostStart + 1) {
      mistakes_.Add(fields.Find("start")->offset, "the value ends behind register 65535");
    }
    return result;
  }

  void TakeScale(const Fields& fields, SiteRegister& result) {
    const JsonValue* scale = fields.Find("scale");
    if (scale == nullptr) {
      return;
    }
    if (!scale->value.is_number() || scale->value.get<double>() == 0) {
      mistakes_.Add(scale->offset, "\"scale\" is not a number other than 0");
      return;
    }
    if (modbus::IsBitRead(result.function) || result.type == ValueType::kString ||
        result.type == ValueType::kHex) {
      fields.Forbid("scale", "stands with numbers only");
    }
    result.scale = scale->value.get<double>();
  }

  void TakeBus(const JsonValue& item) {
    const Fields fields(
        item, "a bus", {"name", "channel", "baud", "line", "silence", "wait", "timeout", "devices"},
        mistakes_);
    SiteBus result;
    result.name = fields.Text(fields.Find("name"));
    Bus& bus = result.bus;
    bus.channel = fields.Number(fields.Require("channel"), 1, kMaxChannel, 0);
    bus.timeout_ms = fields.Number(fields.Find("timeout"), 1,
                                   std::numeric_limits<std::int16_t>::max(), bus.timeout_ms);
    TakeLine(fields, bus);
    if (bus.channel != 0 && !buses_.insert({bus.channel, bus.Transport()}).second) {
      mistakes_.Add(item.offset, "channel " + std::to_string(bus.channel) + " has a bus " +
                                     (bus.IsRs485() ? "with" : "without") + " \"baud\" already");
    }
    for (const JsonValue& device : fields.List(fields.Require("devices"))) {
      TakeDevice(device, result);
    }
    site_.buses.push_back(std::move(result));
  }

  void TakeLine(const Fields& fields, Bus& bus) {
    const JsonValue* baud = fields.Find("baud");
    if (baud == nullptr) {
      for (const char* key : {"line", "silence", "wait"}) {
        fields.Forbid(key, "stands with \"baud\" only");
      }
      return;
    }
    bus.baud = baud->value.is_number_integer() ? FindSpeed(baud->value.dump()) : std::nullopt;
    if (!bus.baud) {
      mistakes_.Add(baud->offset, "\"baud\" is not one of " + SpeedNames());
      bus.baud = FindSpeed("9600");
    }
    bus.line = fields.Choice(fields.Find("line"), FindLineFormat, LineFormatNames())
                   .value_or(kDefaultLine);
    constexpr int kMostMs = 255;
    bus.silence_ms = fields.Number(fields.Find("silence"), 0, kMostMs, 0);
    bus.wait_ms = fields.Number(fields.Find("wait"), 0, kMostMs, 0);
  }

  void TakeDevice(const JsonValue& item, SiteBus& bus) {
    const Fields fields(item, "a device", {"name", "address", "unit_id", "ip", "port", "kind"},
                        mistakes_);
    SiteDevice device;
    device.name = fields.Text(fields.Require("name"));
    device.id = IdOf(device.name);
    if (!device.name.empty() && (device.id.empty() || device.id == kAllDevices)) {
      mistakes_.Add(fields.Find("name")->offset,
                    Quoted(device.name) + " cannot be a name: it says nothing, or all devices");
    }
    device.address = fields.Number(fields.Require("address"), 1, kMaxDeviceCountAtChannel, 0);
    device.unit_id = fields.Number(fields.Find("unit_id"), bus.bus.IsRs485() ? 1 : 0,
                                   bus.bus.IsRs485() ? 247 : 255, device.address);
    if (bus.bus.IsRs485()) {
      fields.Forbid("ip", "stands on a bus without \"baud\" only");
      fields.Forbid("port", "stands on a bus without \"baud\" only");
    } else {
      const auto parse_ip = [](const std::string& text) -> std::optional<std::string> {
        in_addr parsed{};
        return ::inet_pton(AF_INET, text.c_str(), &parsed) == 1 ? std::optional(text)
                                                                : std::nullopt;
      };
      device.ip_address =
          fields.Choice(fields.Require("ip"), parse_ip, "the IPv4 addresses, such as 192.0.2.7")
              .value_or("");
      device.port = fields.Number(fields.Find("port"), 1, 65535, device.port);
    }
    TakeKindOf(fields, device);
    CheckDoubled(item, device, bus);
    bus.devices.push_back(std::move(device));
  }

  void TakeKindOf(const Fields& fields, SiteDevice& device) {
    const JsonValue* kind = fields.Find("kind");
    const std::string name = fields.Text(kind);
    const auto found = kinds_.find(name);
    if (found != kinds_.end()) {
      device.registers = found->second;
    } else if (!name.empty()) {
      std::vector<std::string> known;
      for (const auto& [known_name, registers] : kinds_) {
        known.push_back(known_name);
      }
      const std::string nearest = NearestWord(name, known, kMostTypingErrors);
      mistakes_.Add(kind->offset,
                    "no kind " + Quoted(name) + " in \"kinds\"" +
                        (nearest.empty() ? "" : "; did you mean " + Quoted(nearest) + "?"));
    }
  }

  void CheckDoubled(const JsonValue& item, const SiteDevice& device, const SiteBus& bus) {
    if (!device.name.empty() && !ids_.insert(device.id).second) {
      mistakes_.Add(item.offset, "doubled device name " + Quoted(device.name));
    }
    for (const SiteDevice& other : bus.devices) {
      if (device.address != 0 && device.address == other.address) {
        mistakes_.Add(item.offset, "doubled device address " + std::to_string(device.address) +
                                       ", which " + Quoted(other.name) + " has");
      } else if (device.unit_id == other.unit_id && device.ip_address == other.ip_address &&
                 device.port == other.port) {
        mistakes_.Add(item.offset, "doubled device: unit " + std::to_string(device.unit_id) +
                                       " there is " + Quoted(other.name));
      }
    }
  }

  Mistakes& mistakes_;
  Site site_;
  std::map<std::string, std::vector<SiteRegister>> kinds_;
  std::set<std::pair<int, int>> buses_;  // channel and transport
  std::set<std::string> ids_;
};

/// The text of a file, or why it cannot be read.
std::string ReadText(const std::string& path, std::string& error) {
  constexpr std::uintmax_t kMostBytes = 8 << 20;
  const RegularFile file = OpenRegularFile(path);
  if (!file.obstacle.empty()) {
    error = path + " " + file.obstacle;
  } else if (file.size == 0 || file.size > kMostBytes) {
    error = path + (file.size == 0 ? " is empty" : " is larger than 8 MiB");
  }
  std::string text(error.empty() ? static_cast<std::size_t>(file.size) : 0, '\0');
  const ssize_t size = error.empty() ? ::read(file.descriptor.Get(), text.data(), text.size()) : 0;
  if (size < 0) {
    error = path + " cannot be read: " + std::generic_category().message(errno);
  }
  text.resize(static_cast<std::size_t>(std::max(size, ssize_t{0})));
  return text;
}

}  // namespace

std::string Site::DeviceName(int channel, int transport, int address) const {
  for (const SiteBus& bus : buses) {
    if (bus.bus.channel == channel && bus.bus.Transport() == transport) {
      for (const SiteDevice& device : bus.devices) {
        if (device.address == address) {
          return device.name;
        }
      }
    }
  }
  return {};
}

SiteReading ReadSite(const std::string& path) {
  SiteReading reading;
  const std::string text = ReadText(path, reading.error);
  if (!reading.error.empty()) {
    return reading;
  }
  const JsonTree tree = ParseJson(text);
  Mistakes mistakes;
  if (tree.root) {
    SiteBuilder builder(*tree.root, mistakes);
    reading.site = builder.Take();
  } else {
    mistakes.Add(tree.error_offset, tree.error);
  }
  reading.mistakes = mistakes.InOrder(text);
  if (!reading.mistakes.empty()) {
    reading.site.reset();
  }
  return reading;
}

Site RequireSite(const std::string& option, const std::string& path) {
  SiteReading reading = ReadSite(path);
  if (!reading.error.empty()) {
    ThrowUsage(option, reading.error);
  }
  if (!reading.site) {
    const SiteMistake& first = reading.mistakes.front();
    ThrowUsage(option, path + ":" + std::to_string(first.line) + ":" +
                           std::to_string(first.column) + ": " + first.text);
  }
  return *std::move(reading.site);
}

std::string IdOf(const std::string& name) {
  std::string id;
  for (const char letter : name) {
    const bool is_small = (letter >= 'a' && letter <= 'z') || (letter >= '0' && letter <= '9') ||
                          (static_cast<unsigned char>(letter) & 0x80) != 0;
    if (is_small || (letter >= 'A' && letter <= 'Z')) {
      id += is_small ? letter : static_cast<char>(letter | 0x20);
    } else if (!id.empty() && id.back() != '-') {
      id += '-';
    }
  }
  id.erase(id.find_last_not_of('-') + 1);
  return id;
}

}  // namespace tmsc::ctl
