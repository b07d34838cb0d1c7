#include "settings/daemon_user.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace tmsc::ctl {
namespace {

// "a//b/" has the same parent as "a/b".
std::string ParentOf(std::string path) {
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  const std::size_t end = path.find_last_not_of('/', slash);
  return end == std::string::npos ? "/" : path.substr(0, end + 1);
}

bool IsOnReadOnlyFileSystem(const std::string& path) {
  struct statvfs file_system {};
  return ::statvfs(path.c_str(), &file_system) == 0 && (file_system.f_flag & ST_RDONLY) != 0;
}

}  // namespace

DaemonUser::DaemonUser() : user_(::geteuid()), is_this_(true) {
  const passwd* const entry = ::getpwuid(user_);
  name_ = entry != nullptr ? entry->pw_name : "user " + std::to_string(user_);
}

DaemonUser::DaemonUser(std::string name, uid_t user, std::vector<gid_t> groups)
    : name_(std::move(name)),
      user_(user),
      groups_(std::move(groups)),
      is_this_(user == ::geteuid()) {}

std::optional<DaemonUser> DaemonUser::Named(const std::string& name) {
  const passwd* const entry = ::getpwnam(name.c_str());
  if (entry == nullptr) {
    return std::nullopt;
  }
  int count = 64;
  std::vector<gid_t> groups(static_cast<std::size_t>(count));
  if (::getgrouplist(name.c_str(), entry->pw_gid, groups.data(), &count) < 0) {
    groups.resize(static_cast<std::size_t>(count));
    ::getgrouplist(name.c_str(), entry->pw_gid, groups.data(), &count);
  }
  groups.resize(static_cast<std::size_t>(count));
  return DaemonUser(name, entry->pw_uid, std::move(groups));
}

/// `mode` is R_OK, W_OK or X_OK; a link is followed.
bool DaemonUser::May(const std::string& path, int mode) const {
  if (is_this_) {
    return ::faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0;
  }
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0 || (mode == W_OK && IsOnReadOnlyFileSystem(path))) {
    return false;
  }
  if (user_ == 0) {
    return true;
  }
  constexpr int kOwnerShift = 6;
  constexpr int kGroupShift = 3;
  const bool is_in_group =
      std::find(groups_.begin(), groups_.end(), status.st_gid) != groups_.end();
  const int shift = status.st_uid == user_ ? kOwnerShift : is_in_group ? kGroupShift : 0;
  return (static_cast<int>(status.st_mode) >> shift & mode) != 0;
}

bool DaemonUser::MayRead(const std::string& path) const {
  return May(path, R_OK);
}

std::string DaemonUser::WhyNoFolder(const std::string& path) const {
  const std::string parent = ParentOf(path);
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    const int error = errno;
    if (error == ENOENT && parent != path) {
      return WhyNoFolder(parent);
    }
    return path + ": " + std::generic_category().message(error);
  }
  if (!S_ISDIR(status.st_mode)) {
    return path + " is no folder";
  }
  for (std::string above = path, next = parent; next != above; next = ParentOf(above)) {
    above = next;
    if (!May(above, X_OK)) {
      return name_ + " may not enter " + above;
    }
  }
  if (!May(path, W_OK) || !May(path, X_OK)) {
    return name_ + " may not write into " + path +
           (IsOnReadOnlyFileSystem(path) ? ": its file system is read-only" : "");
  }
  return "";
}

std::string DaemonUser::WhyNoFile(const std::string& path) const {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    return WhyNoFolder(ParentOf(path));
  }
  if (S_ISDIR(status.st_mode)) {
    return path + " is a folder";
  }
  return May(path, W_OK) ? "" : name_ + " may not write " + path;
}

}  // namespace tmsc::ctl
