#ifndef TAMSELCTL_SHARED_SITE_H_
#define TAMSELCTL_SHARED_SITE_H_

#include <optional>
#include <string>
#include <vector>

#include "communication_common.h"
#include "shared/bus.h"
#include "shared/value_type.h"

namespace tmsc::ctl {

/// In place of a device's name on a command line: all devices of the site.
constexpr const char* kAllDevices = "all";

/// A value of a device: which registers or bit hold it and what it means.
struct SiteRegister {
  std::string name;
  byte function = 0;  // of the Modbus read
  int start = 0;
  int count = 1;  // registers, or one bit
  ValueType type = ValueType::kU16;
  WordOrder word_order = WordOrder::kBig;
  double scale = 1;
  std::string unit;
};

struct SiteDevice {
  std::string name;        // "Inverter 17"
  std::string id;          // the same for a command line, "inverter-17"
  int address = 0;         // 1 to 31
  int unit_id = 0;         // Modbus unit
  std::string ip_address;  // over TCP/IP
  int port = 502;          // over TCP/IP
  std::vector<SiteRegister> registers;
};

struct SiteBus {
  std::string name;
  Bus bus;
  std::vector<SiteDevice> devices;
};

/// What is connected to a board, as docs/site.md describes it. Each channel has at most one bus of
/// each transport, no two devices have one name or one place.
struct Site {
  std::string name;
  std::vector<SiteBus> buses;

  /// The name of a device; empty when the site has none there. `transport` is TAMSEL_HEALTH_RS485
  /// or TAMSEL_HEALTH_TCPIP.
  std::string DeviceName(int channel, int transport, int address) const;
};

/// What is wrong at one place of a site file, both from 1.
struct SiteMistake {
  int line = 0;
  int column = 0;
  std::string text;
};

/// A site, or why there is none: the file cannot be read (`error`), or it has mistakes, in their
/// order.
struct SiteReading {
  std::optional<Site> site;
  std::string error;
  std::vector<SiteMistake> mistakes;
};

SiteReading ReadSite(const std::string& path);

/// The site, which is there; else thrown as by ThrowUsage with the first thing that is wrong.
Site RequireSite(const std::string& option, const std::string& path);

/// A name as it is written on a command line: small letters, a hyphen for each run of anything but
/// letters and digits.
std::string IdOf(const std::string& name);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_SITE_H_
