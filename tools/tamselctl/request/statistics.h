#ifndef TAMSELCTL_REQUEST_STATISTICS_H_
#define TAMSELCTL_REQUEST_STATISTICS_H_

#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <tuple>

#include "request/question.h"

namespace tmsc::ctl {

/// Times in a bounded space, however many there are: each is kept to three digits.
class TimeStatistics {
 public:
  void Add(double ms);
  bool IsEmpty() const { return count_ == 0; }
  /// The least time that a share of 0 to 1 of all times does not exceed, in ms.
  double Quantile(double share) const;

 private:
  std::map<std::int64_t, std::uint64_t> counts_;  // by microseconds
  std::uint64_t count_ = 0;
};

/// How the devices and the requests of a repeated request came out.
class Statistics {
 public:
  void Add(const RequestReport& report);
  void PrintTable(std::ostream& output) const;
  /// One line.
  void PrintJson(std::ostream& output) const;

 private:
  struct Tally {
    std::string label;
    std::uint64_t asked = 0;
    std::uint64_t answered = 0;
    TimeStatistics times;
  };
  struct Key {
    int channel;
    int transport;
    int address;
    bool operator<(const Key& other) const {
      return std::tie(channel, transport, address) <
             std::tie(other.channel, other.transport, other.address);
    }
  };

  std::map<Key, Tally> devices_;
  Tally requests_{"requests", 0, 0, {}};
};

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_REQUEST_STATISTICS_H_
