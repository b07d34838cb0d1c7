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

/// The socket that was given; else that of the settings file that was given, read as the daemon
/// reads it; else that of the settings a daemon would have that is started with this environment;
/// where that would find no file, that of the packaged daemon's settings, if there are any.
/// A settings file that was given, or the packaged one, that cannot be read is thrown as by
/// ThrowUsage.
std::string SocketPath(const DaemonOptions& options);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_DAEMON_OPTIONS_H_
