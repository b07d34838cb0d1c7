#include "child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace tmsc::bench {

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, bool is_output_read) {
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  output_.Reset(ends[0]);
  const Descriptor child_end(ends[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (is_output_read) {
    posix_spawn_file_actions_adddup2(&actions, child_end.Get(), STDOUT_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  }
  std::vector<char*> texts;
  for (const std::string& argument : arguments) {
    texts.push_back(const_cast<char*>(argument.c_str()));
  }
  texts.push_back(nullptr);
  const int error = posix_spawn(&pid_, texts[0], &actions, nullptr, texts.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    throw std::runtime_error("cannot start " + arguments[0]);
  }
}

ChildProcess::~ChildProcess() {
  ::kill(pid_, SIGTERM);
  ::waitpid(pid_, nullptr, 0);
}

void ChildProcess::Signal(int number) const {
  ::kill(pid_, number);
}

std::string ChildProcess::ReadLine() {
  std::string line;
  char next = 0;
  while (::read(output_.Get(), &next, 1) == 1) {
    if (next == '\n') {
      return line;
    }
    line += next;
  }
  throw std::runtime_error("the program ended");
}

long ChildProcess::Status(const std::string& field) const {
  std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
  std::string name;
  while (status >> name) {
    if (name == field + ":") {
      long value = 0;
      status >> value;
      return value;
    }
    std::getline(status, name);
  }
  throw std::runtime_error("no " + field + " of the program");
}

double ChildProcess::CpuSeconds() const {
  double nanoseconds = 0;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid_) + "/task")) {
    // The first number: time on a processor (Documentation/scheduler/sched-stats.rst of Linux).
    double on_processor = 0;
    std::ifstream(task.path() / "schedstat") >> on_processor;
    nanoseconds += on_processor;
  }
  return nanoseconds / 1e9;
}

}  // namespace tmsc::bench
