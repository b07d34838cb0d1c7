#ifndef TAMSELCTL_SCAN_SCAN_REPORT_H_
#define TAMSELCTL_SCAN_SCAN_REPORT_H_

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace tmsc::ctl {

/// How one unit came out.
struct UnitReport {
  int unit = 0;
  bool is_answer = false;
  std::string status;                   // in plain words
  int exception = 0;                    // of Modbus; 0: none
  std::optional<long long> at_most_ms;  // of an answer to a request to this unit alone
  std::vector<int> registers;           // or bits, each 0 or 1
};

/// What a scan has found, perhaps before it was whole.
struct ScanReport {
  int channel = 0;
  std::string place;
  std::size_t wanted = 0;  // units
  long long elapsed_ms = 0;
  int exit_code = 0;
  std::string error;              // why it ended early; empty: it did not fail
  std::vector<UnitReport> units;  // that were asked

  std::size_t Answers() const;
};

/// A table of the units that answer, and why the others do not.
void PrintTable(std::ostream& output, const ScanReport& report);

/// The same as one line of JSON.
void PrintJson(std::ostream& output, const ScanReport& report);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SCAN_SCAN_REPORT_H_
