#include "tamsel_client.h"

#include <cerrno>
#include <system_error>
#include <utility>

#include "exchange.h"

namespace tmsc {
namespace {

Outcome OutcomeOf(int result) {
  switch (result) {
    case TAMSEL_OK:
      return Outcome::kAnswered;
    case TAMSEL_NOT_REACHABLE:
      return Outcome::kNotReachable;
    case TAMSEL_TIMED_OUT:
      return Outcome::kTimedOut;
    case TAMSEL_CLOSED:
      return Outcome::kClosedWithoutAnswer;
    default:
      return Outcome::kSocketError;
  }
}

std::string TextOf(const ExchangeEnd& end, const std::string& socket_path) {
  if (end.error == ENAMETOOLONG) {
    return "the socket path " + socket_path + " is too long";
  }
  std::string text = end.what;
  if (end.result == TAMSEL_NOT_REACHABLE) {
    text += " at " + socket_path;
  }
  if (end.result == TAMSEL_CLOSED) {
    text += end.received == 0 ? " without an answer"
                              : " after " + std::to_string(end.received) + " of " +
                                    std::to_string(sizeof(ResponseReceiveData)) + " bytes";
  }
  if (end.error != 0) {
    text += ": " + std::generic_category().message(end.error);
  }
  return text;
}

}  // namespace

TamselClient::TamselClient(std::string socket_path) : socket_path_(std::move(socket_path)) {}

ExchangeResult TamselClient::Exchange(const TcpIpRequest& request, int deadline_ms,
                                      int busy_ms) const {
  return ExchangeBytes(&request, sizeof(request), deadline_ms, busy_ms);
}

ExchangeResult TamselClient::Exchange(const Rs485Request& request, int deadline_ms,
                                      int busy_ms) const {
  return ExchangeBytes(&request, sizeof(request), deadline_ms, busy_ms);
}

ExchangeResult TamselClient::ExchangeBytes(const void* request, std::size_t size, int deadline_ms,
                                           int busy_ms) const {
  ExchangeResult result;
  const ExchangeEnd end =
      ExchangeRecords(socket_path_.c_str(), request, size, deadline_ms, busy_ms, result.response);
  result.outcome = OutcomeOf(end.result);
  result.text = TextOf(end, socket_path_);
  return result;
}

std::optional<DeviceReply> DeviceAnswer(const ResponseReceiveData& response, int address) {
  const DeviceReceiveData* slot = tamsel_device_answer(&response, address);
  if (slot == nullptr) {
    return std::nullopt;
  }
  return DeviceReply{slot->status, std::vector<byte>(slot->data, slot->data + slot->length)};
}

}  // namespace tmsc
