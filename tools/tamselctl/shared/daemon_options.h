#ifndef TAMSELCTL_SHARED_DAEMON_OPTIONS_H_
#define TAMSELCTL_SHARED_DAEMON_OPTIONS_H_

#include <string>

namespace CLI {
class App;
}

namespace tmsc::ctl {

/// Which daemon a command talks to; empty: not given.
struct DaemonOptions {
  std::string socket_path;
  std::string settings_path;
};

/// Adds --socket and --settings; the parse leaves them in `options`, which must outlive it.
void AddDaemonOptions(CLI::App& command, DaemonOptions& options);

/// Adds --settings alone, for a command that has no use for the socket.
void AddSettingsOption(CLI::App& command, std::string& settings_path);

/// Where the settings are that count when no file is given, for a help text.
std::string DefaultSettingsHelp();

/// The settings that count when no file is given: of the file that the environment names, else of
/// the installed package's service, else of a daemon that is started by hand.
std::string DefaultSettingsPath();

/// Makes the settings manager read the file that was given; without one, empty, those of
/// DefaultSettingsPath. A file that cannot be read is thrown as by ThrowUsage when it was given,
/// and else as by ThrowFailure; where none is, the defaults hold.
void UseSettings(const std::string& settings_path);

/// What helps a user who may not open one of the daemon's files or its socket, for the end of a
/// message: "; join the group ...". Empty when that is not the obstacle.
std::string RightsHelp(const std::string& path);

/// The socket that was given; else that of the settings file that was given, read as the daemon
/// reads it; else that of the settings that UseSettings chooses, which may throw.
std::string SocketPath(const DaemonOptions& options);

/// The health file of the same settings; empty when they name none.
std::string HealthFilePath(const DaemonOptions& options);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_DAEMON_OPTIONS_H_
