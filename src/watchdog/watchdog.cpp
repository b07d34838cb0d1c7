#include "watchdog/watchdog.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <string>

#include "log/log_text.h"
#include "logger_setting/logger_setting_manager.h"
#include "utility/constant_string.h"
#include "utility/file_util.h"

extern char**
    environ;  // NOLINT(readability-redundant-declaration): not declared by every C library

namespace tmsc {

namespace {

const std::string& kLogTag = ConstantString("Wdog");
const std::string& kTouchProgram = ConstantString("/usr/bin/touch");
constexpr long kFirstTouchMs = 100;
constexpr long kTouchPollMs = 10;
// What a shell answers, as a raw wait status, for a command that it cannot start.
constexpr int kStatusNotStarted = 127 << 8;

constexpr long kDefaultIntervalSeconds = 30;

/// Starts a program with the signals as a fresh process has them: this one blocks and ignores some.
int Spawn(pid_t* child, const char* const* arguments) {
  posix_spawnattr_t attributes;
  if (const int error = posix_spawnattr_init(&attributes)) {
    return error;
  }
  sigset_t none;
  sigemptyset(&none);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  sigaddset(&defaults, SIGXFSZ);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  const int error = posix_spawn(child, arguments[0], nullptr, &attributes,
                                const_cast<char* const*>(arguments), environ);
  posix_spawnattr_destroy(&attributes);
  return error;
}

}  // namespace

long WatchdogPeriodMs() {
  constexpr long kLongestSeconds = std::numeric_limits<std::int32_t>::max() / 1000;
  long seconds = LoggerSettingManager::GetInstance()->GetWatchdogFileUpdateInterval();
  if (seconds < 0) {
    seconds = kDefaultIntervalSeconds;
  }
  return 1000 * std::min(seconds, kLongestSeconds);
}

Watchdog::~Watchdog() {
  stop_event_.set();
  watchdog_timer_.reset();
}

void Watchdog::StartWatchdog() {
  if (watchdog_timer_) {
    return;
  }
  const std::string path = LoggerSettingManager::GetInstance()->GetTamselComWatchdogPath();
  FileUtil::CreateDirectory(FileUtil::GetDirectory(path), true);
  const long period = WatchdogPeriodMs();
  watchdog_timer_ = std::make_unique<Poco::Timer>(kFirstTouchMs, period);
  watchdog_timer_->start(Poco::TimerCallback<Watchdog>(*this, &Watchdog::onTimer));
  LoggerLog::Debug(kLogTag, LogText("Set Wdog interval [", period, "] fl path[", path, "]"));
}

void Watchdog::StopWatchdog() {}

void Watchdog::onTimer(Poco::Timer& /*timer*/) try {
  const std::string path = LoggerSettingManager::GetInstance()->GetTamselComWatchdogPath();
  const int status = Touch(path);
  if (status != 0) {
    LoggerLog::Debug(kLogTag,
                     LogText("status [", status, "] [", kTouchProgram, " \"", path, "\"]"));
  }
} catch (...) {
  LogException(kLogTag, "touch exception:");  // the next tick tries again
}

/// Returns the raw wait status of touch; 0 also when the watchdog is deleted meanwhile.
int Watchdog::Touch(const std::string& path) {
  // "--" because a path may begin with a hyphen.
  const char* const arguments[] = {kTouchProgram.c_str(), "--", path.c_str(), nullptr};
  pid_t child = 0;
  if (Spawn(&child, arguments) != 0) {
    return kStatusNotStarted;
  }
  int status = 0;
  pid_t ended = 0;
  while ((ended = ::waitpid(child, &status, WNOHANG)) == 0 || (ended < 0 && errno == EINTR)) {
    if (stop_event_.tryWait(kTouchPollMs)) {
      return 0;
    }
  }
  return ended == child ? status : -1;
}

}  // namespace tmsc
