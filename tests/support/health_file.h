#ifndef TAMSEL_TESTS_SUPPORT_HEALTH_FILE_H_
#define TAMSEL_TESTS_SUPPORT_HEALTH_FILE_H_

#include <chrono>

#include "support/files.h"
#include "tamsel_health.h"

namespace tmsc::test {

/// A health file made without a daemon. Its process is one that runs, with a number that no process
/// has; everything else is as never written until it is set.
class HealthFile {
 public:
  /// Milliseconds since 1970 UTC, so long before the object was made.
  std::int64_t Ago(int seconds) const { return now_ms_ - std::int64_t{seconds} * 1000; }

  /// A device after one more exchange, which ended so a second ago and counts for the hour
  /// `hours_ago`; the first failure since the last answer is two hours old.
  tamsel_health_device& Add(int channel, int transport, int address, int cause, int hours_ago = 0) {
    auto& device = contents.devices[tamsel_health_device_index(channel, transport, address)];
    const bool is_good = cause == TAMSEL_CAUSE_ANSWERED;
    device.channel = std::uint8_t(channel);
    device.transport = std::uint8_t(transport);
    device.address = std::uint8_t(address);
    device.last_cause = std::uint8_t(cause);
    device.failures_in_a_row = is_good ? 0 : device.failures_in_a_row + 1;
    device.last_ms = Ago(1);
    device.last_answer_ms = is_good ? Ago(1) : device.last_answer_ms;
    device.failing_since_ms = is_good ? 0 : Ago(7200);
    ++device.exchanges;
    ++device.ends[cause];
    device.newest_hour = std::uint32_t(now_ms_ / 3600000);
    auto& hour = device.hours[(device.newest_hour - unsigned(hours_ago)) % TAMSEL_HEALTH_HOURS];
    ++(is_good ? hour.answered : hour.failed);
    return device;
  }

  /// Writes all of it; what had requests or exchanges, with check sums.
  void Write(const std::string& path) {
    Seal();
    WriteFile(path, {reinterpret_cast<const char*>(&contents), sizeof(contents)});
  }
  void Seal() {
    Seal(contents.process, true);
    for (auto& channel : contents.channels) {
      Seal(channel, channel.requests != 0);
    }
    for (auto& device : contents.devices) {
      Seal(device, device.exchanges != 0);
    }
  }

 private:
  template <typename Record>
  static void Seal(Record& record, bool is_written) {
    record.checksum = is_written ? tamsel_health_checksum(&record, sizeof(record)) : 0;
  }

  const std::int64_t now_ms_ = std::chrono::duration_cast<std::chrono::milliseconds>(
                                   std::chrono::system_clock::now().time_since_epoch())
                                   .count();

 public:
  tamsel_health_file contents{
      {TAMSEL_HEALTH_MAGIC, TAMSEL_HEALTH_VERSION, TAMSEL_HEALTH_BYTE_ORDER, sizeof(contents), {}},
      {0, 0x7FFFFFFF, "1.2.3", Ago(3600), now_ms_, 0, 0, 3, 37, 1024, 0, 0, {}},
      {},
      {},
      {}};
};

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_SUPPORT_HEALTH_FILE_H_
