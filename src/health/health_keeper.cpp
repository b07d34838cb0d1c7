#include "health/health_keeper.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <exception>
#include <filesystem>
#include <iterator>
#include <string_view>
#include <system_error>
#include <utility>

#include "common/time_of_day.h"
#include "log/log_condition.h"
#include "log/log_text.h"
#include "logger_setting/logger_setting_manager.h"
#include "utility/constant_string.h"
#include "utility/descriptor_limit.h"

namespace tmsc {

namespace {

const std::string& kLogTag = ConstantString("Health");

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPassTime{1};
constexpr std::chrono::milliseconds kStartWait{100};
constexpr std::chrono::milliseconds kStopWait{500};
constexpr int kPassesPerRenewal = 10;
constexpr int kPassesPerInspection = 30;
constexpr std::int64_t kHourMs = 3600 * 1000;
constexpr std::uint32_t kHourOf2020 = 438288;
constexpr std::int64_t kSmallestStepMs = 1000;  // of the clock; less is no setting of it

std::int64_t NowMs() {
  return MicrosecondsSinceEpoch() / 1000;
}

/// Whether the clock had been set by then.
bool IsOfSetClock(std::int64_t moment_ms) {
  return moment_ms >= kHourOf2020 * kHourMs;
}

/// How far the clock is ahead of the one that counts from the start of the system.
std::int64_t ClockAheadMs() {
  using std::chrono::milliseconds;
  return NowMs() -
         std::chrono::duration_cast<milliseconds>(Clock::now().time_since_epoch()).count();
}

std::uint32_t Microseconds(std::chrono::nanoseconds time) {
  const auto count = std::chrono::duration_cast<std::chrono::microseconds>(time).count();
  return static_cast<std::uint32_t>(std::clamp<long long>(count, 0, UINT32_MAX));
}

bool IsWithin(int number, int most) {
  return number >= 1 && number <= most;
}

/// Makes the cell of `hour` one of the last 48.
void AdvanceTo(tamsel_health_device& device, std::uint32_t hour) {
  const bool is_clock_set_back = hour + TAMSEL_HEALTH_HOURS <= device.newest_hour;
  if (is_clock_set_back || hour >= device.newest_hour + TAMSEL_HEALTH_HOURS) {
    std::memset(device.hours, 0, sizeof(device.hours));
    device.newest_hour = hour;
  }
  while (device.newest_hour < hour) {
    device.hours[++device.newest_hour % TAMSEL_HEALTH_HOURS] = {};
  }
}

void CountHour(tamsel_health_device& device, std::int64_t now_ms, bool is_answered) {
  const auto hour = static_cast<std::uint32_t>(now_ms / kHourMs);
  if (IsOfSetClock(now_ms)) {
    AdvanceTo(device, hour);
    tamsel_health_hour& cell = device.hours[hour % TAMSEL_HEALTH_HOURS];
    std::uint16_t& count = is_answered ? cell.answered : cell.failed;
    count = static_cast<std::uint16_t>(std::min(count + 1, int{UINT16_MAX}));
  }
}

void CountResponse(tamsel_health_device& device, std::uint32_t time_us) {
  device.response_last_us = time_us;
  device.response_least_us =
      device.response_count == 0 ? time_us : std::min(device.response_least_us, time_us);
  device.response_most_us = std::max(device.response_most_us, time_us);
  device.response_total_us += time_us;
  ++device.response_count;
}

void SetPlace(tamsel_health_device& device, const HealthPlace& place) {
  device.channel = static_cast<std::uint8_t>(place.channel);
  device.transport = static_cast<std::uint8_t>(place.transport);
  device.address = static_cast<std::uint8_t>(place.address);
  std::memset(device.ip_address, 0, sizeof(device.ip_address));
  place.ip_address.copy(device.ip_address, sizeof(device.ip_address) - 1);
  device.port = place.port;
  device.line = place.line;
}

/// How long it usually is from one exchange to the next: the longest counts, as a client may ask in
/// bursts, and is forgotten by and by. A pause is as good as the time after which the device counts
/// as no longer asked.
void CountInterval(tamsel_health_device& device, Clock::time_point& asked_at) {
  constexpr std::int64_t kForgetting = 64;
  const Clock::time_point before = std::exchange(asked_at, Clock::now());
  if (before == Clock::time_point{}) {
    return;
  }
  const auto pause = std::chrono::duration_cast<std::chrono::milliseconds>(asked_at - before);
  const std::int64_t usual_ms = device.interval_ms;
  const std::int64_t interval_ms =
      std::clamp<std::int64_t>(pause.count(), 1, tamsel_health_asked_limit_ms(&device));
  device.interval_ms = static_cast<std::uint32_t>(std::min<std::int64_t>(
      interval_ms > usual_ms ? interval_ms : usual_ms - (usual_ms - interval_ms) / kForgetting,
      UINT32_MAX));
}

void CountEnd(tamsel_health_device& device, const HealthEnd& end) {
  const std::int64_t now_ms = NowMs();
  const bool is_answered = tamsel_health_is_answered(end.cause) != 0;
  device.first_ms = device.exchanges == 0 ? now_ms : device.first_ms;
  ++device.exchanges;
  ++device.ends[end.cause];
  device.last_cause = static_cast<std::uint8_t>(end.cause);
  device.last_detail = end.detail;
  device.last_ms = now_ms;
  if (is_answered) {
    device.failures_in_a_row = 0;
    device.failing_since_ms = 0;
    device.last_answer_ms = now_ms;
  } else if (device.failures_in_a_row++ == 0) {
    device.failing_since_ms = now_ms;
  }
  CountHour(device, now_ms, is_answered);
  if (end.response_time) {
    CountResponse(device, Microseconds(*end.response_time));
  }
}

std::size_t OffsetOf(int channel, int transport, int address) {
  return offsetof(tamsel_health_file, devices) +
         tamsel_health_device_index(channel, transport, address) * sizeof(tamsel_health_device);
}

/// Whether a record may stand at `offset`. This process's own is never taken from the file.
bool IsOfPlace(const tamsel_health_process& /*process*/, std::size_t /*offset*/) {
  return false;
}

bool IsOfPlace(const tamsel_health_channel& channel, std::size_t offset) {
  return offset == offsetof(tamsel_health_file, channels) +
                       (std::size_t{channel.channel} - 1) * sizeof(channel);
}

bool IsOfPlace(const tamsel_health_device& device, std::size_t offset) {
  return IsWithin(device.channel, TAMSEL_HEALTH_CHANNELS) &&
         IsWithin(device.transport, TAMSEL_HEALTH_TRANSPORTS) &&
         IsWithin(device.address, TAMSEL_HEALTH_ADDRESSES) &&
         OffsetOf(device.channel, device.transport, device.address) == offset;
}

template <typename Visit>
void VisitMoments(tamsel_health_process& process, Visit visit) {
  visit(process.started_ms);
  visit(process.updated_ms);
}

template <typename Visit>
void VisitMoments(tamsel_health_channel& channel, Visit visit) {
  visit(channel.longest_at_ms);
  visit(channel.last_request_ms);
}

template <typename Visit>
void VisitMoments(tamsel_health_device& device, Visit visit) {
  visit(device.first_ms);
  visit(device.last_ms);
  visit(device.last_answer_ms);
  visit(device.failing_since_ms);
}

/// A path without what is there twice, by links as far as they are there.
std::filesystem::path Resolved(const std::filesystem::path& path) {
  std::error_code error;
  const std::filesystem::path absolute = std::filesystem::absolute(path, error);
  std::filesystem::path resolved = std::filesystem::weakly_canonical(absolute, error);
  return error ? absolute.lexically_normal() : resolved;
}

/// Whether both paths lead to one file or folder, be it there or not.
bool IsSameFile(const std::filesystem::path& path, const std::filesystem::path& other) {
  std::error_code none_there;
  return !other.empty() && (std::filesystem::equivalent(path, other, none_there) ||
                            Resolved(path) == Resolved(other));
}

/// Whether the path is that of a log file; a card has no small letters.
bool IsLogFile(const std::filesystem::path& path) {
  constexpr std::string_view kBegin = "LoggerCom";
  const std::filesystem::path folder = path.parent_path();
  return ::strncasecmp(path.filename().c_str(), kBegin.data(), kBegin.size()) == 0 &&
         IsSameFile(folder.empty() ? "." : folder,
                    LoggerSettingManager::GetInstance()->GetLogDirectory());
}

/// Whether the settings name the file for another purpose.
bool IsOtherFile(const std::string& path) {
  LoggerSettingManager& settings = *LoggerSettingManager::GetInstance();
  const std::string others[] = {settings.GetTamselComWatchdogPath(), settings.GetComSocketPath(),
                                LoggerSettingManager::SettingFilePath()};
  return IsLogFile(path) ||
         std::any_of(std::begin(others), std::end(others),
                     [&](const std::string& other) { return IsSameFile(path, other); });
}

}  // namespace

bool IsCounted(const DataHeader& header) {
  constexpr std::string_view kScanMark = TAMSEL_SCAN_MARK;
  return std::memcmp(header.buffer, kScanMark.data(), kScanMark.size()) != 0;
}

void HealthKeeper::Create() {
  const std::string path = LoggerSettingManager::GetInstance()->GetHealthFilePath();
  if (path.empty()) {
    return;
  }
  if (IsOtherFile(path)) {
    LoggerLog::Warn(kLogTag, LogText("No health file [", path, "] the daemon's own for other use"));
    return;
  }
  try {
    Singleton<HealthKeeper>::Create(path);
  } catch (const std::exception& failure) {  // no memory or no thread
    LoggerLog::Warn(kLogTag, LogText("No health is kept [", failure.what(), "]"));
  }
}

HealthKeeper::HealthKeeper(const std::string& path)
    : file_(path), records_(std::make_unique<Records>()), clock_ahead_ms_(ClockAheadMs()) {
  records_->process.offset = offsetof(tamsel_health_file, process);
  for (std::size_t i = 0; i < TAMSEL_HEALTH_CHANNELS; ++i) {
    records_->channels[i].offset =
        offsetof(tamsel_health_file, channels) + i * sizeof(tamsel_health_channel);
  }
  for (std::size_t i = 0; i < TAMSEL_HEALTH_DEVICES; ++i) {
    records_->devices[i].offset =
        offsetof(tamsel_health_file, devices) + i * sizeof(tamsel_health_device);
  }
  tamsel_health_process& process = records_->process.record;
  process.starts = 1;
  process.pid = static_cast<std::uint32_t>(::getpid());
  process.started_ms = NowMs();
  std::string_view(TAMSEL_VERSION).copy(process.version, sizeof(process.version) - 1);
  thread_ = std::thread([this] { Run(); });
  // The first pass takes over what the file holds, best before the first report. A file system
  // that takes its time holds up no start.
  std::unique_lock<std::mutex> lock(mutex_);
  pass_ended_.wait_for(lock, kStartWait, [this] { return passes_ > 0; });
}

HealthKeeper::~HealthKeeper() {
  End();
  if (thread_.joinable()) {
    thread_.join();
  }
}

void HealthKeeper::End() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    is_ending_ = true;
  }
  pass_is_due_.notify_one();
}

/// Goes on with what the file has of an earlier process, where there is nothing newer.
void HealthKeeper::TakeOver() {
  VisitRecords([this](auto& kept) {
    decltype(kept.record) in_file{};
    file_.Read(kept.offset, &in_file, sizeof(in_file));
    const std::lock_guard<std::mutex> lock(kept.mutex);
    if (kept.record.checksum == 0 && tamsel_health_is_whole(&in_file, sizeof(in_file)) != 0 &&
        IsOfPlace(in_file, kept.offset)) {
      VisitMoments(in_file, [](std::int64_t& moment_ms) {
        moment_ms = std::max<std::int64_t>(moment_ms, 0);  // before 1970 there was no daemon
      });
      in_file.checksum = tamsel_health_checksum(&in_file, sizeof(in_file));
      kept.record = in_file;
    }
  });
  tamsel_health_process before{};
  file_.Read(records_->process.offset, &before, sizeof(before));
  if (tamsel_health_is_whole(&before, sizeof(before)) != 0) {
    Update(records_->process,
           [&](tamsel_health_process& process) { process.starts = before.starts + 1; });
  }
}

template <typename Visit>
void HealthKeeper::VisitRecords(Visit visit) {
  visit(records_->process);
  for (auto& channel : records_->channels) {
    visit(channel);
  }
  for (auto& device : records_->devices) {
    visit(device);
  }
}

/// Changes a record and, when that made it another, writes it, now or in the next pass. One that
/// was never used stays so when nothing of it is changed.
template <typename Record, typename Change>
void HealthKeeper::Update(Kept<Record>& kept, Change change) noexcept {
  const std::lock_guard<std::mutex> lock(kept.mutex);
  const Record before = kept.record;
  change(kept.record);
  if (std::memcmp(&before, &kept.record, sizeof(Record)) == 0) {
    return;
  }
  kept.record.checksum = tamsel_health_checksum(&kept.record, sizeof(Record));
  kept.is_written = false;
  if (file_.IsInMemory()) {
    Write(kept);
  }
}

/// The caller holds the record's lock.
template <typename Record>
void HealthKeeper::Write(Kept<Record>& kept) noexcept {
  kept.is_written = file_.Write(kept.offset, &kept.record, sizeof(Record));
}

/// Writes a record that the file does not have; `is_inspection`: looks whether it has.
template <typename Record>
void HealthKeeper::WriteLate(Kept<Record>& kept, bool is_inspection) {
  std::unique_lock<std::mutex> lock(kept.mutex);
  const Record record = kept.record;
  bool is_written = kept.is_written;
  kept.is_written = true;
  if (!file_.IsInMemory()) {
    lock.unlock();  // the file may take its time, and nobody else writes to it
  }
  if (is_inspection) {
    Record in_file;
    file_.Read(kept.offset, &in_file, sizeof(in_file));
    is_written = std::memcmp(&in_file, &record, sizeof(record)) == 0;
  }
  if (!is_written && !file_.Write(kept.offset, &record, sizeof(record))) {
    if (!lock.owns_lock()) {
      lock.lock();
    }
    kept.is_written = false;
  }
}

void HealthKeeper::ReportExchange(const HealthPlace& place, const HealthEnd& end) noexcept {
  HealthKeeper* keeper = GetInstance();
  if (keeper == nullptr || !IsWithin(place.channel, TAMSEL_HEALTH_CHANNELS) ||
      !IsWithin(place.address, TAMSEL_HEALTH_ADDRESSES)) {
    return;
  }
  const std::size_t index =
      tamsel_health_device_index(place.channel, place.transport, place.address);
  keeper->Update(keeper->records_->devices[index], [&](tamsel_health_device& device) {
    SetPlace(device, place);
    CountInterval(device, keeper->records_->asked_at[index]);
    CountEnd(device, end);
  });
}

template <typename Change>
void HealthKeeper::UpdateChannel(int channel, Change change) noexcept {
  HealthKeeper* keeper = GetInstance();
  if (keeper == nullptr || !IsWithin(channel, TAMSEL_HEALTH_CHANNELS)) {
    return;
  }
  keeper->Update(keeper->records_->channels[channel - 1], [&](tamsel_health_channel& record) {
    record.channel = static_cast<std::uint32_t>(channel);
    change(record);
  });
}

void HealthKeeper::ReportRequest(int channel, std::optional<int> status,
                                 Clock::time_point begin) noexcept {
  UpdateChannel(channel, [&](tamsel_health_channel& record) {
    const std::uint32_t time_ms = Microseconds(Clock::now() - begin) / 1000;
    record.last_request_ms = NowMs();
    ++record.requests;
    if (record.requests == 1 || time_ms > record.longest_ms) {
      record.longest_ms = time_ms;
      record.longest_at_ms = record.last_request_ms;
    }
    if (!status) {
      ++record.unanswered;
    } else if (*status >= -1 && *status < TAMSEL_HEALTH_STATUSES - 1) {
      ++record.statuses[*status + 1];
    }
  });
}

void HealthKeeper::ReportBusy(int channel) noexcept {
  UpdateChannel(channel, [](tamsel_health_channel& record) { ++record.busy_refusals; });
}

void HealthKeeper::ReportCycle(int channel, Clock::time_point begin) noexcept {
  UpdateChannel(channel, [&](tamsel_health_channel& record) {
    const std::uint32_t time_us = Microseconds(Clock::now() - begin);
    record.cycle_last_us = time_us;
    record.cycle_least_us = record.cycles == 0 ? time_us : std::min(record.cycle_least_us, time_us);
    record.cycle_most_us = std::max(record.cycle_most_us, time_us);
    record.cycle_total_us += time_us;
    ++record.cycles;
  });
}

void HealthKeeper::ReportPower(std::uint32_t power) noexcept {
  if (HealthKeeper* keeper = GetInstance()) {
    keeper->power_ = power;
  }
}

void HealthKeeper::ReportStop() noexcept {
  if (HealthKeeper* keeper = GetInstance()) {
    keeper->Update(keeper->records_->process,
                   [](tamsel_health_process& record) { record.stopped_ms = NowMs(); });
    keeper->End();
    std::unique_lock<std::mutex> lock(keeper->mutex_);
    if (keeper->pass_ended_.wait_for(lock, kStopWait, [keeper] { return keeper->is_over_; })) {
      lock.unlock();
      keeper->thread_.join();  // else the file system keeps it, and the process ends without it
    }
  }
}

void HealthKeeper::Inspect() {
  std::unique_lock<std::mutex> lock(mutex_);
  is_inspection_due_ = true;
  pass_is_due_.notify_one();
  pass_ended_.wait(lock, [this] { return !is_inspection_due_; });
}

/// A pass a second, the first at once, and one at the end.
void HealthKeeper::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!is_over_) {
    const bool is_last = is_ending_;
    const bool is_inspection = is_inspection_due_ || passes_ % kPassesPerInspection == 0;
    lock.unlock();
    try {
      FollowClock();
      UpdateProcess(passes_ % kPassesPerRenewal == 0);
      RunPass(is_inspection);
    } catch (...) {
      LogException(kLogTag, "health exception:");
    }
    lock.lock();
    ++passes_;
    is_inspection_due_ = is_inspection_due_ && !is_inspection;
    is_over_ = is_last;
    pass_ended_.notify_all();
    pass_is_due_.wait_for(lock, kPassTime, [this] { return is_ending_ || is_inspection_due_; });
  }
}

void HealthKeeper::RunPass(bool is_inspection) {
  if (is_inspection && !file_.IsIntact()) {
    OpenFile();
  }
  VisitRecords([&](auto& kept) { WriteLate(kept, is_inspection); });
}

/// Opens the file, or the file that is to take its place; one line at each end of a time without.
void HealthKeeper::OpenFile() {
  std::string moved_to;
  const std::string obstacle = file_.Open(moved_to);
  if (!moved_to.empty()) {
    LoggerLog::Warn(kLogTag, LogText("Health file of another layout [", file_.Path(),
                                     "] moved to [", moved_to, "]"));
  }
  if (obstacle.empty() && !is_taken_over_) {
    TakeOver();
    is_taken_over_ = true;
  }
  if (obstacle.empty() != obstacle_.empty()) {
    LoggerLog::Warn(kLogTag, obstacle.empty()
                                 ? LogText("Health file is kept again [", file_.Path(), "]")
                                 : LogText("No health file [", file_.Path(), "] ", obstacle));
  }
  obstacle_ = obstacle;
}

/// A board may get its time late, even in more than one step: what came before is dated anew.
void HealthKeeper::FollowClock() {
  const std::int64_t step_ms = ClockAheadMs() - clock_ahead_ms_;
  if (std::abs(step_ms) < kSmallestStepMs) {
    return;
  }
  clock_ahead_ms_ += step_ms;
  const std::int64_t now_ms = NowMs();
  if (IsOfSetClock(now_ms - step_ms)) {
    return;
  }
  const auto date_anew = [&](std::int64_t& moment_ms) {
    if (moment_ms != 0 && !IsOfSetClock(moment_ms)) {
      moment_ms = std::max<std::int64_t>(std::min(moment_ms + step_ms, now_ms), 1);
    }
  };
  date_anew(card_gone_since_ms_);
  VisitRecords(
      [&](auto& kept) { Update(kept, [&](auto& record) { VisitMoments(record, date_anew); }); });
}

/// Takes over what the daemon's condition is; `is_renewal`: also what is costly to find out.
void HealthKeeper::UpdateProcess(bool is_renewal) {
  const bool is_card_gone = log_condition.is_card_gone;
  if (is_card_gone != (card_gone_since_ms_ != 0)) {
    card_gone_since_ms_ = is_card_gone ? NowMs() : 0;
  }
  const int descriptors = is_renewal ? OpenDescriptors() : 0;
  Update(records_->process, [&](tamsel_health_process& record) {
    record.card_gone_since_ms = card_gone_since_ms_;
    record.power = power_;
    record.log_lines_lost = log_condition.lines_lost;
    if (is_renewal) {
      record.updated_ms = NowMs();
      record.descriptors_in_use = static_cast<std::uint32_t>(descriptors);
      record.descriptor_limit = static_cast<std::uint32_t>(DescriptorLimit());
    }
  });
}

}  // namespace tmsc
