#include "signal_pipe.h"

#include <Poco/Exception.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace tmsc {

namespace {

void ChangeSignalMask(int how) {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGUSR1, SIGTERM, SIGPWR, SIGUSR2}) {
    sigaddset(&signals, signal);
  }
  pthread_sigmask(how, &signals, nullptr);
}

}  // namespace

SignalPipe::SignalPipe() {
  int ends[2];
  if (::pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0) {
    throw Poco::SystemException("signal pipe", errno);
  }
  read_end_.Reset(ends[0]);
  write_end_.Reset(ends[1]);
}

void SignalPipe::Notify(SignalNotification notification) noexcept {
  const int saved_errno = errno;
  [[maybe_unused]] const ssize_t written = ::write(write_end_.Get(), &notification, 1);
  errno = saved_errno;
}

std::optional<SignalNotification> SignalPipe::Wait(const Deadline& deadline) {
  SignalNotification notification{};
  while (::read(read_end_.Get(), &notification, 1) != 1) {
    if (WaitForDescriptor(read_end_.Get(), POLLIN, deadline) <= 0) {
      return std::nullopt;
    }
  }
  return notification;
}

void BlockDaemonSignals() {
  ChangeSignalMask(SIG_BLOCK);
}

void UnblockDaemonSignals() {
  ChangeSignalMask(SIG_UNBLOCK);
}

}  // namespace tmsc
