#ifndef TAMSEL_TESTS_SUPPORT_DAEMON_PROCESS_H_
#define TAMSEL_TESTS_SUPPORT_DAEMON_PROCESS_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/files.h"
#include "support/shell.h"
#include "support/wait.h"
#include "tamsel_client.h"
#include "utility/deadline.h"
#include "utility/descriptor.h"

namespace tmsc::test {

struct DaemonOptions {
  /// Returns when the daemon has answered a request.
  bool is_awaited = true;
  bool has_standard_streams = true;
  /// A shell command, run before the daemon in namespaces of its own; "$F" is the daemon's folder
  /// and
  /// "$CARD" the card's.
  std::string in_namespace = {};
  /// The same without a namespace.
  std::string in_shell = {};
};

/// Whether this machine gives any user a mount namespace of their own.
inline bool HasNamespaces() {
  return RunShell("unshare -rm mount -t tmpfs none /mnt").exit_code == 0;
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
    if (options.is_awaited && !WaitUntilAnswers()) {
      const std::string text = Console() + Errors();
      Signal(SIGKILL);
      WaitForExit(5000);
      throw std::runtime_error("the daemon does not answer:\n" + text);
    }
  }

  ~DaemonProcess() {
    if (!exit_status_) {
      Signal(SIGKILL);
      WaitForExit(10000);
    }
    const std::string errors = Errors();
    for (const char* const report : {"Sanitizer", "runtime error:", "terminate called"}) {
      EXPECT_EQ(errors.find(report), std::string::npos) << errors;
    }
  }

  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  const TempFolder& Folder() const { return folder_; }
  const std::string& SocketPath() const { return socket_path_; }
  std::string WatchdogPath() const { return folder_.Path("check/tmsc"); }
  std::string CardPath() const { return folder_.Path("card"); }
  std::string LogPath() const { return LogPathIn(folder_); }
  pid_t Pid() const { return pid_; }

  bool WaitUntilAnswers(int limit_ms = 20000) const {
    const TamselClient client(socket_path_);
    return WaitFor(limit_ms, [&] {
      return client.Exchange(MakeTcpIpRequest(1), 2000).outcome == Outcome::kAnswered;
    });
  }

  /// Reaches nobody else, also when the daemon has ended. From any thread.
  void Signal(int number) const {
    ::syscall(SYS_pidfd_send_signal, process_.Get(), number, nullptr, 0);
  }

  /// The raw wait status; nothing when the daemon still runs after `limit_ms`.
  std::optional<int> WaitForExit(int limit_ms) {
    int status = 0;
    if (!exit_status_ &&
        WaitForDescriptor(process_.Get(), POLLIN, Deadline(std::chrono::milliseconds(limit_ms))) >
            0 &&
        ::wait4(pid_, &status, 0, &usage_) == pid_) {
      exit_status_ = status;
    }
    return exit_status_;
  }

  /// What it has used, once it has ended.
  const rusage& Usage() const { return usage_; }

  bool IsRunning() { return !WaitForExit(0).has_value(); }

  /// What it has written to its standard output so far: every log line.
  std::string Console() const { return ReadFile(folder_.Path("console")); }
  std::string Errors() const { return ReadFile(folder_.Path("errors")); }
  bool WaitForConsole(const std::string& text, int limit_ms) const {
    return WaitFor(limit_ms, [&] { return Console().find(text) != std::string::npos; });
  }

  /// A number of /proc/PID/status, such as Threads, or VmRSS in KiB.
  long Status(const std::string& field) const {
    std::istringstream status(ReadFile(ProcPath("status")));
    std::string name;
    while (status >> name) {
      if (name == field + ":") {
        long value = 0;
        status >> value;
        return value;
      }
      std::getline(status, name);
    }
    throw std::runtime_error("no " + field + " of the daemon");
  }
  long DescriptorCount() const {
    const std::filesystem::directory_iterator entries(ProcPath("fd"));
    return std::distance(begin(entries), end(entries));
  }
  std::string ProcPath(const std::string& name) const {
    return "/proc/" + std::to_string(pid_) + "/" + name;
  }

 private:
  void Start(const DaemonOptions& options) {
    const std::string program = std::string(TAMSEL_BIN_DIR) + "/tamsel_communication";
    std::vector<std::string> arguments = {program};
    const std::string shell = options.in_namespace + options.in_shell;
    if (!shell.empty()) {
      std::filesystem::create_directories(CardPath());
      arguments = {"/bin/sh", "-c",
                   "F=" + folder_.Path() + "; CARD=" + CardPath() + "; " + shell +
                       " && exec setpriv --pdeathsig KILL " + program};
    }
    if (!options.in_namespace.empty()) {
      arguments.insert(arguments.begin(), {"/usr/bin/unshare", "-rm"});
    }
    std::vector<char*> texts;
    for (std::string& argument : arguments) {
      texts.push_back(argument.data());
    }
    texts.push_back(nullptr);
    std::string setting = "TAMSEL_SETTING_FILE=" + folder_.Path("settings.xml");
    std::vector<char*> variables = {setting.data()};
    for (char** variable = environ; *variable != nullptr; ++variable) {
      variables.push_back(*variable);
    }
    variables.push_back(nullptr);
    const std::string console = folder_.Path("console");
    const std::string errors = folder_.Path("errors");
    pid_ = ::fork();
    if (pid_ < 0) {
      throw std::runtime_error("no process for the daemon");
    }
    if (pid_ == 0) {
      RunChild(texts.data(), variables.data(), console.c_str(), errors.c_str(),
               options.has_standard_streams);
    }
    process_.Reset(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
  }

  /// Between fork and exec of a program with threads: async-signal-safe calls only.
  [[noreturn]] static void RunChild(char** arguments, char** variables, const char* console,
                                    const char* errors, bool has_standard_streams) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    ::dup2(::open(console, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), STDOUT_FILENO);
    ::dup2(::open(errors, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), STDERR_FILENO);
    // Whatever the test program was itself started with does not count as the daemon's.
    ::close_range(has_standard_streams ? STDERR_FILENO + 1 : STDIN_FILENO, ~0U, 0);
    ::execve(arguments[0], arguments, variables);
    ::_exit(127);
  }

  TempFolder folder_;
  std::string socket_path_;
  pid_t pid_ = -1;
  Descriptor process_;
  std::optional<int> exit_status_;
  rusage usage_{};
};

/// Raw wait status of a program that returned 0.
constexpr int kExitedWell = 0;

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_SUPPORT_DAEMON_PROCESS_H_
