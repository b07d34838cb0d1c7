#ifndef TAMSELCTL_REQUEST_REQUEST_REPORT_H_
#define TAMSELCTL_REQUEST_REQUEST_REPORT_H_

#include <iosfwd>
#include <vector>

#include "request/question.h"

namespace tmsc::ctl {

/// A line for the request and a table of its devices; a request that came to none goes to standard
/// error.
void PrintTable(std::ostream& output, const RequestReport& report);

/// "Inverter 17: 4.83 kW", for each report of a device of a site.
void PrintNamed(std::ostream& output, const RequestReport& report);

/// One line of JSON, also for a request that came to no devices.
void PrintJson(std::ostream& output, const RequestReport& report);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_REQUEST_REQUEST_REPORT_H_
