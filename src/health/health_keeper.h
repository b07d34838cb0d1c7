#ifndef TAMSEL_HEALTH_HEALTH_KEEPER_H_
#define TAMSEL_HEALTH_HEALTH_KEEPER_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "communication_common.h"
#include "health/health_file.h"
#include "tamsel_health.h"
#include "utility/singleton.h"

namespace tmsc {

/// Which device, and where it was asked: the fields of the same names in tamsel_health_device.
struct HealthPlace {
  int channel = 0;
  int transport = 0;  // kRequestDataTypeRS485 or kRequestDataTypeTCPIP
  int address = 0;
  std::string_view ip_address = {};
  std::uint32_t port = 0;
  std::uint32_t line = 0;
};

/// How an exchange with a device ended.
struct HealthEnd {
  tamsel_health_cause cause = TAMSEL_CAUSE_NONE;
  int detail = 0;
  /// From the last byte sent to the last one received, where that is known.
  std::optional<std::chrono::microseconds> response_time = std::nullopt;
};

/// Whether health counts a request: it does not when the header has the mark of a scan, whose
/// addresses are nobody's devices. Reports on channel 0 are dropped, so that is their channel then.
bool IsCounted(const DataHeader& header);

/// Keeps the health of each device and channel and of the daemon in the file that the setting
/// "HealthFilePath" names. Without the setting there is no instance, and a report does nothing.
///
/// The records are kept in memory and each is written as a whole when it changes: at once by the
/// thread that reports, when the file is in memory, else by the keeper's own thread within a
/// second. That thread also notices within half a minute what others did to the file, and mends it.
/// No other thread opens the file or looks at it.
///
/// Reports may come from any thread; they allocate nothing, throw nothing, wait for no report of
/// another device, and drop what is outside the ranges of the file.
class HealthKeeper : public Singleton<HealthKeeper> {
 public:
  /// The instance, when the settings manager names a file; call after LoggerLog::Setup, with the
  /// daemon's signals blocked. What the file holds from an earlier process is taken over.
  static void Create();
  /// `path` names the file.
  explicit HealthKeeper(const std::string& path);
  ~HealthKeeper();

  static void ReportExchange(const HealthPlace& place, const HealthEnd& end) noexcept;
  /// A request of a channel that ended with `status`, none: without a response.
  static void ReportRequest(int channel, std::optional<int> status,
                            std::chrono::steady_clock::time_point begin) noexcept;
  /// A request that was refused because the channel was busy.
  static void ReportBusy(int channel) noexcept;
  /// A communication cycle of the serial library.
  static void ReportCycle(int channel, std::chrono::steady_clock::time_point begin) noexcept;
  /// TAMSEL_POWER_ON, TAMSEL_POWER_OUTAGE or TAMSEL_POWER_OFF.
  static void ReportPower(std::uint32_t power) noexcept;
  /// The daemon ends. The file gets all reports before this one, within 500 ms.
  static void ReportStop() noexcept;

  /// Has the keeper's thread look at the file now, mend it and write what is not written; returns
  /// when it has. Not after ReportStop.
  void Inspect();

 private:
  // What stands in the file, with the lock that guards it.
  template <typename Record>
  struct Kept {
    std::mutex mutex;
    Record record{};
    std::size_t offset = 0;  // in the file
    bool is_written = true;  // the file has it
  };
  struct Records {
    Kept<tamsel_health_process> process;
    Kept<tamsel_health_channel> channels[TAMSEL_HEALTH_CHANNELS];
    Kept<tamsel_health_device> devices[TAMSEL_HEALTH_DEVICES];
    // When this process last asked, guarded by the device's mutex; zero: not yet.
    std::chrono::steady_clock::time_point asked_at[TAMSEL_HEALTH_DEVICES];
  };

  template <typename Record, typename Change>
  void Update(Kept<Record>& kept, Change change) noexcept;
  template <typename Record>
  void Write(Kept<Record>& kept) noexcept;
  template <typename Record>
  void WriteLate(Kept<Record>& kept, bool is_inspection);
  template <typename Visit>
  void VisitRecords(Visit visit);
  template <typename Change>
  static void UpdateChannel(int channel, Change change) noexcept;

  void End();
  void TakeOver();
  void RunPass(bool is_inspection);
  void OpenFile();
  void FollowClock();
  void UpdateProcess(bool is_renewal);
  void Run();

  HealthFile file_;
  const std::unique_ptr<Records> records_;
  std::atomic<std::uint32_t> power_{TAMSEL_POWER_ON};
  // The keeper's thread's own.
  std::string obstacle_;        // why there is no file; empty: there is one
  bool is_taken_over_ = false;  // what an earlier process left in the file
  std::int64_t card_gone_since_ms_ = 0;
  std::int64_t clock_ahead_ms_;  // of the steady clock, in the last pass

  std::mutex mutex_;
  std::condition_variable pass_is_due_;
  std::condition_variable pass_ended_;
  // Guarded by mutex_; only the keeper's thread changes the last two.
  bool is_ending_ = false;
  bool is_inspection_due_ = false;
  bool is_over_ = false;
  int passes_ = 0;
  std::thread thread_;
};

}  // namespace tmsc

#endif  // TAMSEL_HEALTH_HEALTH_KEEPER_H_
