#include "log/log_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <map>
#include <system_error>
#include <utility>

#include "shared/arguments.h"
#include "shared/daemon_options.h"

namespace tmsc::ctl {
namespace {

constexpr const char* kLogName = "LoggerCom.log";
constexpr const char* kLogFolderOnCard = "velmorahome/Log";
constexpr int kMostCopies = 9999;
// The daemon's longest line, with the longest path in it twice, is far below that.
constexpr std::size_t kLongestLine = 64 * 1024;

/// 0 for the live file, n for the copy with .n at the end of its name.
std::pair<std::string, int> SplitName(const std::string& path) {
  const std::size_t dot = path.rfind('.');
  const auto number =
      dot == std::string::npos ? std::nullopt : ParseNumber(path.substr(dot + 1), 1, kMostCopies);
  return number ? std::pair(path.substr(0, dot), *number) : std::pair(path, 0);
}

std::string CopyPath(const std::string& live_path, int number) {
  return number == 0 ? live_path : live_path + "." + std::to_string(number);
}

struct Identity {
  dev_t device = 0;
  ino_t number = 0;
  bool operator==(const Identity& other) const {
    return device == other.device && number == other.number;
  }
};

Identity IdentityOf(const LogFile& file) {
  struct stat status {};
  return ::fstat(file.descriptor.Get(), &status) == 0 ? Identity{status.st_dev, status.st_ino}
                                                      : Identity{};
}

constexpr int kNoRegularFile = EMEDIUMTYPE;

/// An open file; not open, and errno, for what cannot be read or is no regular file: a pipe may
/// never end.
LogFile Open(const std::string& path) {
  LogFile file{path,
               Descriptor(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC))};
  struct stat status {};
  if (file.descriptor.IsOpen() && ::fstat(file.descriptor.Get(), &status) == 0 &&
      !S_ISREG(status.st_mode)) {
    file.descriptor.Reset();
    errno = S_ISDIR(status.st_mode) ? EISDIR : kNoRegularFile;
  }
  return file;
}

bool Contains(const std::vector<LogFile>& files, const LogFile& file) {
  const Identity identity = IdentityOf(file);
  return std::any_of(files.begin(), files.end(),
                     [&identity](const LogFile& other) { return IdentityOf(other) == identity; });
}

std::string Reason(const std::string& path, int error) {
  if (error == kNoRegularFile) {
    return path + ": no regular file";
  }
  return path + ": " + std::generic_category().message(error) +
         (error == EACCES ? RightsHelp(path) : "");
}

/// The highest number of a copy in the folder; -1 when there is not even the live file.
int HighestCopy(const std::string& folder, std::error_code& error) {
  int highest = -1;
  std::filesystem::directory_iterator entry(folder, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    const auto [name, number] = SplitName(entry->path().filename().string());
    highest = name == kLogName ? std::max(highest, number) : highest;
  }
  return highest;
}

/// Newest first: what is renamed meanwhile is met again under its next name, and known.
void OpenCopies(const std::string& live_path, int highest, LogFiles& log) {
  std::vector<LogFile> copies;
  for (int number = 0; number <= kMostCopies; ++number) {
    LogFile file = Open(CopyPath(live_path, number));
    if (!file.descriptor.IsOpen()) {
      const int error = errno;
      if (error != ENOENT) {
        log.mistakes.push_back(Reason(file.path, error));
      } else if (number > highest) {
        break;  // a rotation may have made one more than there were
      }
    } else if (!Contains(copies, file)) {
      copies.push_back(std::move(file));
    }
  }
  if (!copies.empty()) {
    copies.front().path = live_path;  // in a rotation the newest one has another name already
  }
  std::move(copies.rbegin(), copies.rend(), std::back_inserter(log.files));
}

void OpenFolder(const std::string& folder, LogFiles& log) {
  std::error_code error;
  const std::string on_card = folder + "/" + kLogFolderOnCard;
  int highest = HighestCopy(folder, error);
  if (error) {
    log.mistakes.push_back(Reason(folder, error.value()));
  } else if (highest >= 0) {
    OpenCopies(folder + "/" + kLogName, highest, log);
  } else if ((highest = HighestCopy(on_card, error)) >= 0) {
    OpenCopies(on_card + "/" + kLogName, highest, log);
  } else {
    log.mistakes.push_back(folder + ": no " + kLogName + " in this folder");
  }
}

}  // namespace

void LineSplitter::Add(std::string_view text, const LineTaker& take) {
  for (std::size_t end = 0; (end = text.find('\n')) != std::string_view::npos;
       text.remove_prefix(end + 1)) {
    if (rest_.empty()) {
      take(text.substr(0, end), !is_too_long_);
    } else {
      rest_.append(text.substr(0, end));
      take(rest_, !is_too_long_);
      rest_.clear();
    }
    is_too_long_ = false;
  }
  rest_.append(text);
  if (rest_.size() > kLongestLine) {
    is_too_long_ = true;
    rest_.clear();
  }
}

void LineSplitter::End(const LineTaker& take) {
  if (!rest_.empty() || is_too_long_) {
    take(rest_, false);
  }
  rest_.clear();
  is_too_long_ = false;
}

LogFiles OpenLog(const std::vector<std::string>& places) {
  LogFiles log;
  // Files of one log by its live path, in the order in which the logs were named.
  std::vector<std::pair<std::string, std::map<int, std::string>>> logs;
  for (const std::string& place : places) {
    struct stat status {};
    if (place == "-") {
      logs.push_back({place, {{0, place}}});
    } else if (::stat(place.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
      logs.push_back({place, {}});
    } else {
      const auto [live_path, number] = SplitName(place);
      auto found = std::find_if(logs.begin(), logs.end(), [&path = live_path](const auto& known) {
        return known.first == path;
      });
      if (found == logs.end()) {
        found = logs.insert(logs.end(), {live_path, {}});
      }
      found->second[-number] = place;
    }
  }
  for (const auto& [live_path, files] : logs) {
    if (files.empty()) {
      OpenFolder(live_path, log);
    }
    for (const auto& [number, path] : files) {
      LogFile file = path == "-" ? LogFile{path, Descriptor(::dup(STDIN_FILENO))} : Open(path);
      if (file.descriptor.IsOpen()) {
        log.files.push_back(std::move(file));
      } else {
        log.mistakes.push_back(Reason(path, errno));
      }
    }
  }
  return log;
}

bool ReadToEnd(const LogFile& file, LineSplitter& splitter, const LineTaker& take) {
  char text[64 * 1024];
  while (true) {
    const ssize_t count = ::read(file.descriptor.Get(), text, sizeof(text));
    if (count > 0) {
      splitter.Add({text, static_cast<std::size_t>(count)}, take);
    } else if (count == 0 || errno != EINTR) {
      return count == 0;
    }
  }
}

LogFollower::LogFollower(LogFile file) : file_(std::move(file)) {}

bool LogFollower::Poll(const LineTaker& take) {
  struct stat of_name {};
  struct stat of_file {};
  const bool has_name = ::stat(file_.path.c_str(), &of_name) == 0;
  // Looked at before the rest is read: once the name is another file's, this one grows no more.
  ReadToEnd(file_, splitter_, take);
  if (::fstat(file_.descriptor.Get(), &of_file) != 0 || !has_name) {
    return true;  // as long as there is no other file, this one may come back
  }
  if (of_name.st_ino != of_file.st_ino || of_name.st_dev != of_file.st_dev) {
    splitter_.End(take);
    return TakeNewerFiles(take);
  }
  if (of_file.st_size < ::lseek(file_.descriptor.Get(), 0, SEEK_CUR)) {
    ::lseek(file_.descriptor.Get(), 0, SEEK_SET);
    splitter_.End(take);
    ReadToEnd(file_, splitter_, take);
    return false;
  }
  return true;
}

/// Reads the files that were begun after this one, oldest first, and goes on with the newest.
bool LogFollower::TakeNewerFiles(const LineTaker& take) {
  const Identity identity = IdentityOf(file_);
  std::vector<LogFile> newer;
  bool is_found = false;
  // A rotation in progress leaves a gap, which moves down as this search moves up.
  constexpr int kGapsMost = 3;
  int gaps = 0;
  for (int number = 0; number <= kMostCopies && gaps <= kGapsMost && !is_found; ++number) {
    LogFile file = Open(CopyPath(file_.path, number));
    if (!file.descriptor.IsOpen()) {
      ++gaps;
      continue;
    }
    is_found = IdentityOf(file) == identity;
    if (!is_found && !Contains(newer, file)) {
      newer.push_back(std::move(file));
    }
  }
  if (newer.empty()) {
    return true;  // it has its name again, or the next file is not there yet
  }
  std::string live_path = std::move(file_.path);
  for (auto file = newer.rbegin(); file != newer.rend(); ++file) {
    splitter_.End(take);
    ReadToEnd(*file, splitter_, take);
    file_ = std::move(*file);
  }
  file_.path = std::move(live_path);
  return is_found;
}

}  // namespace tmsc::ctl
