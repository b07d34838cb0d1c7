#include "site/site_command.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "shared/exit_code.h"
#include "shared/json_line.h"
#include "shared/printable.h"
#include "shared/site.h"
#include "shared/table.h"

namespace tmsc::ctl {
namespace {

constexpr const char* kExamples =
    "Examples:\n"
    "  tamselctl site site.json\n"
    "  tamselctl site --json site.json\n\n"
    "Mistakes go to standard error, each as FILE:LINE:COLUMN: what is wrong.\n\n"
    "Exit status:\n"
    "  0    the file is right\n"
    "  1    standard output could not be written\n"
    "  2    the file has mistakes or cannot be read, or wrong usage";

struct SiteOptions {
  std::string file;
  bool is_json = false;
};

Device DeviceOf(const SiteDevice& device) {
  Device result;
  result.address = device.address;
  result.unit = device.unit_id;
  result.ip_address = device.ip_address;
  result.port = device.port;
  return result;
}

std::string RegisterNames(const SiteDevice& device) {
  std::string names;
  for (const SiteRegister& item : device.registers) {
    names +=
        (names.empty() ? "" : ", ") + item.name + (item.unit.empty() ? "" : " (" + item.unit + ")");
  }
  return names;
}

void PrintTable(std::ostream& output, const Site& site) {
  Table table({">channel", ">device", "place", "name", "for the command line", "registers"});
  for (const SiteBus& bus : site.buses) {
    for (const SiteDevice& device : bus.devices) {
      table.Add({std::to_string(bus.bus.channel), std::to_string(device.address),
                 PlaceText(bus.bus, DeviceOf(device)), device.name, device.id,
                 RegisterNames(device)});
    }
  }
  if (!site.name.empty()) {
    output << site.name << '\n';
  }
  if (table.IsEmpty()) {
    output << "no devices\n";
  } else {
    table.Print(output);
  }
}

void PrintJson(std::ostream& output, const std::string& file, const SiteReading& reading) {
  nlohmann::ordered_json json{{"file", file}, {"ok", reading.site.has_value()}};
  if (!reading.error.empty()) {
    json["error"] = reading.error;
  }
  json["mistakes"] = nlohmann::ordered_json::array();
  for (const SiteMistake& mistake : reading.mistakes) {
    json["mistakes"].push_back(
        {{"line", mistake.line}, {"column", mistake.column}, {"text", mistake.text}});
  }
  json["devices"] = nlohmann::ordered_json::array();
  for (const SiteBus& bus : reading.site.value_or(Site{}).buses) {
    for (const SiteDevice& device : bus.devices) {
      nlohmann::ordered_json item{{"channel", bus.bus.channel},
                                  {"transport", bus.bus.IsRs485() ? "rs485" : "tcpip"},
                                  {"device", device.address},
                                  {"unit_id", device.unit_id},
                                  {"place", PlaceText(bus.bus, DeviceOf(device))},
                                  {"name", device.name},
                                  {"id", device.id}};
      item["registers"] = nlohmann::ordered_json::array();
      for (const SiteRegister& entry : device.registers) {
        item["registers"].push_back({{"name", entry.name}, {"unit", entry.unit}});
      }
      json["devices"].push_back(std::move(item));
    }
  }
  PrintJsonLine(output, json);
}

int RunSite(const SiteOptions& options) {
  const SiteReading reading = ReadSite(options.file);
  if (options.is_json) {
    PrintJson(std::cout, options.file, reading);
  } else if (reading.site) {
    PrintTable(std::cout, *reading.site);
  } else if (!reading.error.empty()) {
    std::cerr << "tamselctl: " << reading.error << '\n';
  }
  if (!options.is_json) {
    for (const SiteMistake& mistake : reading.mistakes) {
      std::cerr << options.file << ':' << mistake.line << ':' << mistake.column << ": "
                << Printable(mistake.text) << '\n';
    }
  }
  return reading.site ? kExitOk : kExitUsage;
}

}  // namespace

void AddSiteCommand(CLI::App& app, int& exit_code) {
  const auto options = std::make_shared<SiteOptions>();
  CLI::App& command =
      *app.add_subcommand("site", "Check a file that names a site's devices and print them");
  command.footer(kExamples);
  command.add_option("file", options->file, "The site file")->type_name("FILE")->required();
  command.add_flag("--json", options->is_json, "Print one object of JSON, mistakes included");
  command.callback([options, &exit_code] { exit_code = RunSite(*options); });
}

}  // namespace tmsc::ctl
