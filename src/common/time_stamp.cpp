#include "common/time_stamp.h"

#include <Poco/DateTimeFormatter.h>

namespace tmsc {

TimeStamp::TimeStamp() : time_stamp_(std::make_unique<Poco::Timestamp>()) {}

TimeStamp::~TimeStamp() = default;

std::string TimeStamp::StringFromFormat(const std::string& formatString) {
  return Poco::DateTimeFormatter::format(*time_stamp_, formatString, Poco::DateTimeFormatter::UTC);
}

std::unique_ptr<TimeStamp> TimeStamp::CreateWithCurrentDate() {
  return std::make_unique<TimeStamp>();
}

}  // namespace tmsc
