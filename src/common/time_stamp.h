#ifndef TAMSEL_COMMON_TIME_STAMP_H_
#define TAMSEL_COMMON_TIME_STAMP_H_

#include <Poco/Timestamp.h>

#include <memory>
#include <string>

namespace tmsc {

/// The instant at which it was constructed, in microseconds.
class TimeStamp {
 public:
  TimeStamp();
  virtual ~TimeStamp();

  /// The instant as Coordinated Universal Time, in the notation of Poco::DateTimeFormatter.
  std::string StringFromFormat(const std::string& formatString);

  static std::unique_ptr<TimeStamp> CreateWithCurrentDate();

 private:
  std::unique_ptr<Poco::Timestamp> time_stamp_;
};

}  // namespace tmsc

#endif  // TAMSEL_COMMON_TIME_STAMP_H_
