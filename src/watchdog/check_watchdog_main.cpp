#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>

#include "log/log_text.h"
#include "logger_setting/logger_setting_manager.h"
#include "utility/descriptor.h"
#include "watchdog/watchdog.h"

namespace {

using tmsc::LogText;

constexpr int kExitUsage = 2;
constexpr int kExitNotStarted = 127;
constexpr const char* kUsage =
    "usage: check_watchdog STATE COMMAND [ARGUMENT ...]\n\n"
    "Runs a command in its own place when the daemon hangs or serves nobody: when its watchdog "
    "file\n"
    "has not been touched for three intervals and 10 s, or when nobody has listened at its socket "
    "for\n"
    "45 s. A watchdog file that is not there is only told: the daemon may be unable to make it "
    "and\n"
    "serve well otherwise. With WatchdogFileUpdateInterval 0 it looks at nothing.\n\n"
    "STATE keeps what was seen from one call to the next. The settings are the daemon's, read as "
    "it\n"
    "does, from the file that TAMSEL_SETTING_FILE names.\n";

constexpr long kTouchesMissed = 3;
constexpr long kTouchSlackSeconds = 10;
/// More than a start takes, and two looks of the timer.
constexpr long kUnservedSeconds = 45;
const char* const kMissing = "missing";

/// Seconds on a clock that nobody sets, which rests with the daemon's own while the system sleeps:
/// a board that gets its time later does not look like one whose daemon hangs.
long Now() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<long>(now.tv_sec);
}

/// What was seen by the last call.
struct Seen {
  std::string touched;       // time stamp of the watchdog file, or kMissing
  long touched_since = -1;   // first seen at this second
  long unserved_since = -1;  // nobody listens since this second; -1: somebody does
};

std::string TimeStampOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0
             ? LogText(status.st_mtim.tv_sec, ".", status.st_mtim.tv_nsec)
             : kMissing;
}

/// 0 when somebody listens at the socket, else why not. The kernel refuses a socket of another kind
/// only when there is somebody: the daemon does not see it, and writes no line about a client that
/// sends nothing.
int SocketError(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    return ENAMETOOLONG;
  }
  path.copy(address.sun_path, path.size());
  const tmsc::Descriptor probe(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const bool is_taken =
      ::connect(probe.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  return is_taken || errno == EPROTOTYPE ? 0 : errno;
}

Seen ReadState(const std::string& path) {
  Seen seen;
  std::ifstream(path) >> seen.touched >> seen.touched_since >> seen.unserved_since;
  return seen;
}

bool WriteState(const std::string& path, const Seen& seen) {
  std::ofstream file(path);
  file << seen.touched << ' ' << seen.touched_since << ' ' << seen.unserved_since << '\n';
  return file.flush().good();
}

/// Looks once. `complaint` is empty when there is nothing to tell; true when the daemon is to be
/// started anew.
bool Look(Seen& seen, std::string& complaint) {
  tmsc::LoggerSettingManager* settings = tmsc::LoggerSettingManager::GetInstance();
  const long now = Now();
  const std::string file = settings->GetTamselComWatchdogPath();
  const std::string touched = TimeStampOf(file);
  if (touched != seen.touched || seen.touched_since > now) {
    seen.touched = touched;
    seen.touched_since = now;
  }
  const std::string socket = settings->GetComSocketPath();
  const int error = SocketError(socket);
  // A socket that may not be tried tells nothing of the daemon.
  if (error == 0 || error == EACCES) {
    seen.unserved_since = -1;
  } else if (seen.unserved_since < 0 || seen.unserved_since > now) {
    seen.unserved_since = now;
  }

  const long untouched = now - seen.touched_since;
  const long unserved = seen.unserved_since < 0 ? 0 : now - seen.unserved_since;
  if (unserved > kUnservedSeconds) {
    complaint = LogText("socket ", socket, ": nobody listens for ", unserved, " s (",
                        std::strerror(error), ")");
    return true;
  }
  const long patience = kTouchesMissed * (tmsc::WatchdogPeriodMs() / 1000) + kTouchSlackSeconds;
  if (untouched > patience) {
    const bool is_missing = touched == kMissing;
    complaint = LogText("watchdog file ", file, is_missing ? ": not there" : ": not touched",
                        " for ", untouched, " s");
    seen.touched_since = now;
    return !is_missing;
  }
  if (error == EACCES) {
    complaint = LogText("socket ", socket, ": ", std::strerror(error));
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    const bool is_help = argc == 2 && std::strcmp(argv[1], "--help") == 0;
    std::fputs(kUsage, is_help ? stdout : stderr);
    return is_help ? 0 : kExitUsage;
  }
  tmsc::LoggerSettingManager::Create();
  if (tmsc::WatchdogPeriodMs() == 0) {
    return 0;  // touched once, at the start
  }
  const std::string state = argv[1];
  Seen seen = ReadState(state);
  std::string complaint;
  const bool is_to_be_restarted = Look(seen, complaint);
  if (!complaint.empty()) {
    std::fprintf(stderr, "%s\n", complaint.c_str());
  }
  // A daemon that has just been started gets its time.
  if (!WriteState(state, is_to_be_restarted ? Seen() : seen)) {
    std::fprintf(stderr, "%s: %s\n", state.c_str(), std::strerror(errno));
    return 1;
  }
  if (is_to_be_restarted) {
    ::execvp(argv[2], argv + 2);
    std::fprintf(stderr, "%s: %s\n", argv[2], std::strerror(errno));
    return kExitNotStarted;
  }
  return 0;
}
