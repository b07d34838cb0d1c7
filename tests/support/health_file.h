#ifndef TAMSEL_TESTS_SUPPORT_HEALTH_FILE_H_
#define TAMSEL_TESTS_SUPPORT_HEALTH_FILE_H_

#include <chrono>
#include <string>
#include <vector>

#include "support/files.h"
#include "tamsel_health.h"

namespace tmsc::test {

/// A health file made without a daemon: what is not asked for stays as if it was never written.
class HealthFile {
 public:
  HealthFile() {
    file_.header = {TAMSEL_HEALTH_MAGIC, TAMSEL_HEALTH_VERSION, 0x01020304, sizeof(file_), {}};
  }
  /// Milliseconds since 1970 UTC, so long before the object was made.
  std::int64_t Ago(int seconds) const { return now_ms_ - std::int64_t{seconds} * 1000; }

  /// A daemon that runs, process 2^31 - 1, which never is one.
  tamsel_health_process& Process() {
    return file_.process = {0, 0x7FFFFFFF, "1.2.3", Ago(3600), now_ms_, 0, 0,
                            3, 37,         1024,    0,         0,       {}};
  }
  tamsel_health_channel& Channel(int channel) {
    file_.channels[channel - 1].channel = std::uint32_t(channel);
    return file_.channels[channel - 1];
  }
  /// A device after one more exchange that ended so in the hour `hours_ago`; the last answer is
  /// then a second old, the first failure after it two hours.
  tamsel_health_device& Add(int channel, int transport, int address, int cause, int hours_ago = 0) {
    tamsel_health_device& device =
        file_.devices[tamsel_health_device_index(channel, transport, address)];
    const bool is_good = cause == TAMSEL_CAUSE_ANSWERED;
    device.channel = byte_of(channel);
    device.transport = byte_of(transport);
    device.address = byte_of(address);
    device.last_cause = byte_of(cause);
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

  /// Writes all of it, each record with its check sum.
  void Write(const std::string& path) {
    Seal(file_.process, file_.process.pid);
    for (auto& channel : file_.channels) {
      Seal(channel, channel.channel);
    }
    for (auto& device : file_.devices) {
      Seal(device, device.channel);
    }
    WriteFile(path, {reinterpret_cast<const char*>(&file_), sizeof(file_)});
  }

 private:
  static std::uint8_t byte_of(int number) { return static_cast<std::uint8_t>(number); }
  template <typename Record>
  static void Seal(Record& record, std::uint32_t is_written) {
    record.checksum = is_written != 0 ? tamsel_health_checksum(&record, sizeof(record)) : 0;
  }

  const std::int64_t now_ms_ = std::chrono::duration_cast<std::chrono::milliseconds>(
                                   std::chrono::system_clock::now().time_since_epoch())
                                   .count();
  tamsel_health_file file_{};
};

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_SUPPORT_HEALTH_FILE_H_
