#include "tamsel_communication_manager.h"

#include "access_worker_request/rs485_access_request_libcache.h"
#include "health/health_keeper.h"
#include "log/log_text.h"
#include "utility/constant_string.h"
#include "utility/file_util.h"

namespace tmsc {

namespace {
const std::string& kLogTag = ConstantString("TMSCommMgr");
// Made in advance: neither a notification nor what it asks for is lost for want of memory for a
// line.
const std::string& kPowerOffText = ConstantString("PowerOffStateWork");
const std::string& kPowerOffEndText = ConstantString("PowerOffStateWork end");
const std::string& kPowerOnText = ConstantString("PowerOnStateWork");
const std::string& kPowerOnEndText = ConstantString("PowerOnStateWork end");
const std::string& kOutageText = ConstantString("NotifyOutage");
const std::string& kRecoveryText = ConstantString("NotifyOutageRecovery");
constexpr long kComLogFlushInterval = 300000;
constexpr std::chrono::milliseconds kPassTime{500};
constexpr std::chrono::seconds kOutageWait{10};
}  // namespace

TamselCommunicationManager::TamselCommunicationManager()
    : watchdog_(std::make_unique<Watchdog>()) {}

TamselCommunicationManager::~TamselCommunicationManager() {
  Kill();
  if (server_thread_) {
    server_->Stop();
    server_thread_->join();
  }
}

void TamselCommunicationManager::Start() {
  if (!server_thread_) {
    StartServices();
  }
  if (!log_flush_timer_) {
    log_flush_timer_ = std::make_unique<Poco::Timer>(kComLogFlushInterval, kComLogFlushInterval);
    log_flush_timer_->start(Poco::TimerCallback<TamselCommunicationManager>(
        *this, &TamselCommunicationManager::OnLogFlushTimer));
  }
  LoggerLog::Flush();
  UnblockDaemonSignals();
  while (is_server_running_) {
    try {
      RunPass();
    } catch (...) {
      LogException(kLogTag, "pass exception:");
    }
  }
  // A server that could not listen has ended. One that serves goes on until the process ends.
  if (!server_thread_->isRunning()) {
    server_thread_->join();
    server_thread_.reset();
  }
}

void TamselCommunicationManager::StartServices() {
  LoggerLog::Info(kLogTag, LogText("Start AppVer:", kAppVersion));
  if (watchdog_) {  // none after Kill
    watchdog_->StartWatchdog();
  }
  server_ = std::make_unique<CommunicationServer>();
  server_thread_ = std::make_unique<Poco::Thread>();
  LoggerLog::Info(kLogTag, "Start Svr");
  server_thread_->start(*server_);
  is_server_running_ = true;
}

void TamselCommunicationManager::RunPass() {
  ServeSignalsFor(kPassTime);
  if (is_outage_ && is_outage_recovery_) {
    is_outage_ = false;
    is_outage_recovery_ = false;
    HealthKeeper::ReportPower(is_power_off_state_ ? TAMSEL_POWER_OFF : TAMSEL_POWER_ON);
    return;
  }
  if (!is_power_off_state_ && is_outage_) {
    is_outage_ = false;
    PowerOffStateWork();
  }
  if (is_power_off_state_ && is_outage_recovery_) {
    is_outage_recovery_ = false;
    PowerOnStateWork();
  }
}

/// Waits for the whole of the duration and runs each notification as it arrives.
void TamselCommunicationManager::ServeSignalsFor(std::chrono::milliseconds duration) {
  const Deadline deadline(duration);
  while (!deadline.HasPassed()) {
    const auto notification = signal_pipe_.Wait(deadline);
    if (!notification) {
      return;
    }
    switch (*notification) {
      case SignalNotification::kStop:
        Kill();
        break;
      case SignalNotification::kOutage:
        NotifyOutage();
        break;
      case SignalNotification::kOutageRecovery:
        NotifyOutageRecovery();
        break;
    }
  }
}

void TamselCommunicationManager::PowerOffStateWork() {
  LoggerLog::Info(kLogTag, kPowerOffText);
  LoggerLog::Verbose(kLogTag, "outage wait in");
  ServeSignalsFor(kOutageWait);
  LoggerLog::Verbose(kLogTag, "outage wait out");
  FileUtil::GetInstance()->SetLogWriteEnable(false);
  is_power_off_state_ = true;
  HealthKeeper::ReportPower(TAMSEL_POWER_OFF);
  LoggerLog::Flush();
  LoggerLog::Info(kLogTag, kPowerOffEndText);
}

void TamselCommunicationManager::PowerOnStateWork() {
  FileUtil::GetInstance()->SetLogWriteEnable(true);
  is_power_off_state_ = false;
  HealthKeeper::ReportPower(TAMSEL_POWER_ON);
  LoggerLog::Info(kLogTag, kPowerOnText);
  LoggerLog::Flush();
  LoggerLog::Info(kLogTag, kPowerOnEndText);
}

void TamselCommunicationManager::Kill() {
  LoggerLog::Flush();
  Rs485AccessRequestLibcache::Destroy();
  is_server_running_ = false;
  if (watchdog_) {
    watchdog_->StopWatchdog();
    watchdog_.reset();
  }
  if (log_flush_timer_) {
    log_flush_timer_->stop();
    log_flush_timer_.reset();
  }
  LoggerLog::Info(kLogTag, "Kill comp.");
  LoggerLog::Flush();
}

void TamselCommunicationManager::NotifyOutage() {
  LoggerLog::Info(kLogTag, kOutageText);
  is_outage_ = true;
  is_outage_recovery_ = false;
  HealthKeeper::ReportPower(is_power_off_state_ ? TAMSEL_POWER_OFF : TAMSEL_POWER_OUTAGE);
}

void TamselCommunicationManager::NotifyOutageRecovery() {
  LoggerLog::Info(kLogTag, kRecoveryText);
  is_outage_recovery_ = true;
}

void TamselCommunicationManager::Post(SignalNotification notification) noexcept {
  signal_pipe_.Notify(notification);
}

void TamselCommunicationManager::OnLogFlushTimer(Poco::Timer& /*timer*/) {
  LoggerLog::Flush();
}

}  // namespace tmsc
