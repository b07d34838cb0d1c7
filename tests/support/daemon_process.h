#ifndef TAMSEL_TESTS_SUPPORT_DAEMON_PROCESS_H_
#define TAMSEL_TESTS_SUPPORT_DAEMON_PROCESS_H_

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>

#include "support/files.h"
#include "support/shell.h"
#include "support/wait.h"
#include "tamsel_client.h"
#include "utility/deadline.h"
#include "utility/descriptor.h"

namespace tmsc::test {

struct DaemonOptions {
  /// The constructor returns when the daemon has answered a request.
  bool is_awaited = true;
  /// Shell commands that come before the daemon in its process; "$F" is its folder.
  std::string setup = ":";
  /// Whether the process has user and mount namespaces of its own, see HasNamespaces.
  bool has_namespaces = false;
};

/// Whether this machine gives any user a mount namespace of their own.
inline bool HasNamespaces() {
  return RunShell("unshare -rm mount -t tmpfs none /mnt").exit_code == 0;
}

/// A number of a text such as /proc/PID/status: Threads, or VmRSS in KiB.
inline long long StatusField(const std::string& status, const std::string& name, int base = 10) {
  const std::size_t at = status.find(name + ":");
  return at == std::string::npos ? throw std::runtime_error("no " + name + " in " + status)
                                 : std::stoll(status.substr(at + name.size() + 1), nullptr, base);
}

/// The daemon as a process with a folder of its own. It is killed when the object goes, and by the
/// kernel when the thread that made the object ends. A report of a sanitizer or of the C++ run time
/// on its standard error fails the test.
class DaemonProcess {
 public:
  /// `changes` go over settings that put every path into the daemon's folder.
  explicit DaemonProcess(const Settings& changes = {}, const DaemonOptions& options = {}) {
    const Settings settings = SettingsIn(folder_, changes);
    socket_path_ = settings.at("ComSocketPath");
    WriteFile(folder_.Path("settings.xml"), SettingsXml(settings));
    Start(options);
    const TamselClient client(socket_path_);
    if (options.is_awaited && !WaitFor(20000, [&] {
          return client.Exchange(MakeTcpIpRequest(1), 2000).outcome == Outcome::kAnswered;
        })) {
      End();
      throw std::runtime_error("the daemon does not answer:\n" + Console() + Errors());
    }
  }
  ~DaemonProcess() {
    End();
    for (const char* const report : {"Sanitizer", "runtime error:", "terminate called"}) {
      EXPECT_FALSE(Contains(Errors(), report)) << Errors();
    }
  }
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  const TempFolder& Folder() const { return folder_; }
  const std::string& SocketPath() const { return socket_path_; }
  std::string LogPath() const { return LogPathIn(folder_); }
  pid_t Pid() const { return pid_; }

  /// Reaches nobody else, also when the daemon has ended. From any thread.
  void Signal(int number) const {
    ::syscall(SYS_pidfd_send_signal, process_.Get(), number, nullptr, 0);
  }

  /// The raw wait status, 0 of a daemon that returned 0; nothing when it still runs after
  /// `limit_ms`.
  std::optional<int> WaitForExit(int limit_ms) {
    const Deadline deadline{std::chrono::milliseconds(limit_ms)};
    int status = 0;
    if (!exit_status_ && WaitForDescriptor(process_.Get(), POLLIN, deadline) > 0 &&
        ::waitpid(pid_, &status, 0) == pid_) {
      exit_status_ = status;
    }
    return exit_status_;
  }
  bool IsRunning() { return !WaitForExit(0).has_value(); }

  /// What it has written to its standard output so far: every log line.
  std::string Console() const { return ReadFile(folder_.Path("console")); }
  bool WaitForConsole(const std::string& text, int limit_ms = 10000) const {
    return WaitFor(limit_ms, [&] { return Contains(Console(), text); });
  }

  std::string ProcPath(const std::string& name) const {
    return "/proc/" + std::to_string(pid_) + "/" + name;
  }
  long long Status(const std::string& field) const {
    return StatusField(ReadFile(ProcPath("status")), field);
  }
  long DescriptorCount() const {
    return std::distance(std::filesystem::directory_iterator(ProcPath("fd")), {});
  }

 private:
  std::string Errors() const { return ReadFile(folder_.Path("errors")); }

  void Start(const DaemonOptions& options) {
    const std::string script =
        "F=" + folder_.Path() + "; exec < /dev/null > $F/console 2> $F/errors; " + options.setup +
        " && TAMSEL_SETTING_FILE=$F/settings.xml exec setpriv --pdeathsig KILL " TAMSEL_BIN_DIR
        "/tamsel_communication";
    pid_ = ::fork();
    if (pid_ == 0) {
      // Whatever the test program was itself started with does not count as the daemon's.
      ::close_range(STDERR_FILENO + 1, ~0U, 0);
      options.has_namespaces
          ? ::execlp("unshare", "unshare", "-rm", "sh", "-c", script.c_str(), nullptr)
          : ::execlp("sh", "sh", "-c", script.c_str(), nullptr);
      ::_exit(127);
    }
    process_.Reset(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
  }
  void End() {
    Signal(SIGKILL);
    WaitForExit(10000);
  }

  TempFolder folder_;
  std::string socket_path_;
  pid_t pid_ = -1;
  Descriptor process_;
  std::optional<int> exit_status_;
};

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_SUPPORT_DAEMON_PROCESS_H_
