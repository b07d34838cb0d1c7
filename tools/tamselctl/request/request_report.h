#ifndef TAMSELCTL_REQUEST_REQUEST_REPORT_H_
#define TAMSELCTL_REQUEST_REQUEST_REPORT_H_

#include <iosfwd>
#include <string>
#include <vector>

#include "communication_common.h"

namespace tmsc::ctl {

/// How one device came out of a request, on either transport.
struct DeviceReport {
  int address = 0;
  std::string place;  // where the device is: IP:PORT, or speed and format of the line
  bool is_good = false;
  std::string status;          // in plain words
  std::vector<byte> answer;    // the answer frame as it came
  std::vector<int> registers;  // of an answer that carries some
};

/// How a request came out.
struct RequestReport {
  int channel = 0;
  long long elapsed_ms = 0;  // of the exchange with the daemon
  std::vector<DeviceReport> devices;
};

/// A line for the request and a table of its devices.
void PrintTable(std::ostream& output, const RequestReport& report);

/// The same as one line of JSON.
void PrintJson(std::ostream& output, const RequestReport& report);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_REQUEST_REQUEST_REPORT_H_
