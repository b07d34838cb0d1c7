#ifndef TAMSELCTL_REQUEST_QUESTION_H_
#define TAMSELCTL_REQUEST_QUESTION_H_

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "shared/bus.h"
#include "shared/exchange.h"
#include "shared/value_type.h"

namespace tmsc::ctl {

/// What one device is asked and how its answer is read.
struct Question {
  Device device;
  std::string name;           // of the device, from a site file; else empty
  std::string register_name;  // of the same
  std::string label;          // what stands before the value: the name, with the register if needed
  std::optional<ValueType> type;  // none: registers as they are
  WordOrder word_order = WordOrder::kBig;
  double scale = 1;
  std::string unit;
};

/// Questions that go out as one request.
struct Batch {
  Bus bus;
  std::vector<Question> questions;
  bool is_broadcast = false;
  bool is_checked = true;  // false: over RS485 the answers may be anything
};

/// How one device came out of a request, on either transport.
struct DeviceReport {
  int address = 0;
  int unit_id = 0;
  std::string name;
  std::string register_name;
  std::string label;
  std::string place;
  bool is_good = false;
  std::string status;                          // in plain words
  int code = 0;                                // the device's status byte
  int exception = 0;                           // of Modbus; 0: none
  std::vector<byte> answer;                    // the answer frame as it came
  int start = 0;                               // number of the first register or bit, from 0
  std::vector<int> registers;                  // of an answer that carries some
  std::vector<nlohmann::ordered_json> values;  // of registers with a type, scaled, and of bits
  bool is_bits = false;
  std::string unit;  // of the values
  std::optional<DeviceEnd> end;
};

/// How a request came out.
struct RequestReport {
  Bus bus;
  long long begin_ms = 0;
  long long elapsed_ms = 0;  // of the exchange with the daemon
  int exit_code = 0;
  int status = 0;       // of the response
  std::string error;    // why there are no devices, for people; empty: there are
  std::string outcome;  // of the exchange with the daemon, for programs
  std::vector<DeviceReport> devices;
};

/// Sends the questions and reads the answers. Nothing when it was interrupted.
std::optional<RequestReport> Ask(Exchanger& exchanger, const Batch& batch);

/// A value of a report for people.
std::string ValueText(const nlohmann::ordered_json& value);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_REQUEST_QUESTION_H_
