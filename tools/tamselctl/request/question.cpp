#include "request/question.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "health_reader.h"
#include "modbus/rtu_frame.h"
#include "modbus/tcp_frame.h"
#include "shared/exit_code.h"
#include "shared/times.h"
#include "status_text.h"

namespace tmsc::ctl {
namespace {

modbus::AnswerCheck CheckAnswer(const Batch& batch, const Device& device,
                                const std::vector<byte>& answer) {
  if (!batch.bus.IsRs485()) {
    return modbus::CheckTcpAnswer(device.frame, answer);
  }
  return batch.is_checked ? modbus::CheckRtuAnswer(device.frame, answer) : modbus::AnswerCheck{};
}

// A product of decimal numbers is one of few digits, whatever binary makes of it.
nlohmann::ordered_json Scaled(const nlohmann::ordered_json& value, double scale) {
  if (scale == 1 || !value.is_number()) {
    return value;
  }
  char text[64];
  std::snprintf(text, sizeof(text), "%.12g", value.get<double>() * scale);
  return std::strtod(text, nullptr);
}

void TakeValues(const Batch& batch, const Question& question, modbus::AnswerCheck& answer,
                DeviceReport& report) {
  report.is_bits = !answer.bits.empty();
  if (report.is_bits || !answer.registers.empty()) {
    // Behind the function code of what was asked.
    const std::size_t at = batch.bus.IsRs485() ? 2 : modbus::kMbapLength + 1;
    const std::vector<byte>& frame = question.device.frame;
    report.start = frame[at] << 8 | frame[at + 1];
  }
  for (const bool bit : answer.bits) {
    report.values.emplace_back(bit);
  }
  if (question.type && !answer.registers.empty()) {
    for (const auto& value : DecodeValues(answer.registers, *question.type, question.word_order)) {
      report.values.push_back(Scaled(value, question.scale));
    }
  }
  report.registers = std::move(answer.registers);
}

DeviceReport MakeReport(const Batch& batch, const Question& question, const Exchange& exchange,
                        const std::optional<DeviceEnd>& end) {
  DeviceReport report;
  report.address = question.device.address;
  report.unit_id = question.device.unit;
  report.name = question.name;
  report.register_name = question.register_name;
  report.label = question.label;
  report.place = PlaceText(batch.bus, question.device);
  report.unit = question.unit;
  report.end = end;
  const auto reply = DeviceAnswer(exchange.result.response, report.address);
  const auto status_text = batch.bus.IsRs485() ? Rs485DeviceStatusText : TcpDeviceStatusText;
  const auto failure = [&](const std::string& text) {
    return end && !IsHealthyCause(end->cause) ? HealthCauseText(end->cause, end->detail) : text;
  };
  report.code = reply ? reply->status : 0;
  if (!reply) {
    report.status = "broken slot in the response";
  } else if (reply->status != 0) {
    report.status = failure(status_text(reply->status));
    // What was heard on the bus may tell why it is not the answer.
    report.answer = reply->frame;
  } else if (batch.is_broadcast) {
    report.is_good = true;
    report.status = "sent";
  } else if (reply->frame.empty()) {
    report.status = failure("no answer");
  } else {
    modbus::AnswerCheck answer = CheckAnswer(batch, question.device, reply->frame);
    report.is_good = answer.is_good;
    report.status = answer.is_good ? status_text(reply->status) : answer.text;
    report.exception = answer.exception;
    report.answer = reply->frame;
    TakeValues(batch, question, answer, report);
  }
  return report;
}

}  // namespace

std::optional<RequestReport> Ask(Exchanger& exchanger, const Batch& batch) {
  std::vector<Device> devices;
  for (const Question& question : batch.questions) {
    devices.push_back(question.device);
  }
  RequestReport report;
  report.bus = batch.bus;
  report.begin_ms = NowMs();
  const auto exchange = exchanger.Run(
      batch.bus, devices,
      "channel " + std::to_string(batch.bus.channel) + ": " + std::to_string(devices.size()) +
          (devices.size() == 1 ? " device asked" : " devices asked"));
  if (!exchange) {
    return std::nullopt;
  }
  report.elapsed_ms = exchange->elapsed_ms;
  report.exit_code = exchange->ExitCode();
  report.outcome = exchange->OutcomeName();
  report.status = exchange->result.response.receive_data.status;
  if (report.exit_code != kExitOk) {
    report.error = exchange->ErrorText();
    return report;
  }
  for (std::size_t index = 0; index < devices.size(); ++index) {
    report.devices.push_back(
        MakeReport(batch, batch.questions[index], *exchange, exchange->ends[index]));
    report.exit_code = report.devices.back().is_good ? report.exit_code : kExitDeviceFailed;
  }
  return report;
}

std::string ValueText(const nlohmann::ordered_json& value) {
  return value.is_string() ? value.get<std::string>()
         : value.is_null() ? "no number"
                           : value.dump();
}

}  // namespace tmsc::ctl
