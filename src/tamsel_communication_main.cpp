#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "access_worker_request/rs485_access_request_libcache.h"
#include "channel/access_channel_manager.h"
#include "health/health_keeper.h"
#include "log/logger_log.h"
#include "logger_setting/logger_setting_manager.h"
#include "signal_pipe.h"
#include "socket_manager/tcp_socket_manager.h"
#include "tamsel_communication_manager.h"
#include "utility/descriptor_limit.h"
#include "utility/file_rights.h"
#include "utility/file_util.h"

namespace {

constexpr int kExitUsage = 2;

using tmsc::SignalNotification;
using tmsc::TamselCommunicationManager;

void Post(SignalNotification notification) {
  if (TamselCommunicationManager* manager = TamselCommunicationManager::GetInstance()) {
    manager->Post(notification);
  }
}

void handler_sigterm(int /*signum*/) {
  Post(SignalNotification::kStop);
}
void handler_sigpwr(int /*signum*/) {
  Post(SignalNotification::kOutage);
}
void handler_sigusr2(int /*signum*/) {
  Post(SignalNotification::kOutageRecovery);
}

/// Log lines go to descriptor 1: when the daemon is started without standard streams, a device
/// connection or the log file must not come to stand there.
void OpenStandardStreams() {
  int descriptor = 0;
  do {
    descriptor = ::open("/dev/null", O_RDWR);
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor > STDERR_FILENO) {
    ::close(descriptor);
  }
}

void InstallSignalHandlers() {
  std::signal(SIGUSR1, handler_sigterm);
  std::signal(SIGTERM, handler_sigterm);
  std::signal(SIGPWR, handler_sigpwr);
  std::signal(SIGUSR2, handler_sigusr2);
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);  // a file that may grow no further is a write error like any other
}

/// Answers the first argument; the exit status. The daemon itself takes none.
int PrintUsage(const char* argument) {
  const bool is_version = std::strcmp(argument, "--version") == 0;
  const bool is_help = std::strcmp(argument, "--help") == 0;
  if (is_version) {
    std::printf("tamsel_communication %s (%s)\n", TAMSEL_VERSION, tmsc::kAppVersion.c_str());
  } else {
    std::fprintf(
        is_help ? stdout : stderr,
        "usage: tamsel_communication\n\n"
        "Serves field-bus requests on a Unix socket until SIGTERM or SIGUSR1; SIGPWR reports "
        "a\npower outage, SIGUSR2 that power is back. It stays in the foreground and writes "
        "its log to\nstandard output and to the card.\n\n"
        "Settings are read once from the file that the environment variable "
        "%s\nnames, as the service does, else from\n%s.\nRS485_PORT_1 to RS485_PORT_3 name the "
        "serial devices of the channels.\n\n"
        "  --help     print this\n"
        "  --version  print the version\n",
        tmsc::kLoggerSettingFileVariable.c_str(), tmsc::kLoggerSettingXmlFilePath.c_str());
  }
  return is_help || is_version ? 0 : kExitUsage;
}

/// The C library would keep a memory pool of its own for most of the hundred threads.
void LimitMemoryPools() {
  ::mallopt(M_ARENA_MAX, 2);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    return PrintUsage(argv[1]);
  }
  tmsc::KeepWritingToOwner();
  tmsc::RaiseDescriptorLimit();
  LimitMemoryPools();
  std::setlocale(LC_CTYPE, "");
  OpenStandardStreams();
  tmsc::BlockDaemonSignals();
  InstallSignalHandlers();
  tmsc::LoggerSettingManager::Create();
  tmsc::LoggerLog::Setup();
  tmsc::Rs485AccessRequestLibcache::Create();
  TamselCommunicationManager::Create();
  tmsc::AccessChannelManager::Create();
  tmsc::TCPSocketManager::Create();
  tmsc::FileUtil::Create();
  tmsc::HealthKeeper::Create();
  TamselCommunicationManager::GetInstance()->Start();
  tmsc::HealthKeeper::ReportStop();
  tmsc::LoggerLog::Shutdown();
  // Not return: worker threads still run, and nothing that they use may be destroyed under them.
  ::_exit(0);
}
