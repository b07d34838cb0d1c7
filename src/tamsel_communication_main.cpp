#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <clocale>
#include <csignal>

#include "access_worker_request/rs485_access_request_libcache.h"
#include "channel/access_channel_manager.h"
#include "log/logger_log.h"
#include "logger_setting/logger_setting_manager.h"
#include "signal_pipe.h"
#include "socket_manager/tcp_socket_manager.h"
#include "tamsel_communication_manager.h"
#include "utility/file_util.h"

namespace {

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
}

/// The C library would keep a memory pool of its own for most of the hundred threads.
void LimitMemoryPools() {
  ::mallopt(M_ARENA_MAX, 2);
}

}  // namespace

int main() {
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
  TamselCommunicationManager::GetInstance()->Start();
  tmsc::LoggerLog::Shutdown();
  // Not return: worker threads still run, and nothing that they use may be destroyed under them.
  ::_exit(0);
}
