#ifndef TAMSELCTL_SETTINGS_DAEMON_USER_H_
#define TAMSELCTL_SETTINGS_DAEMON_USER_H_

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace tmsc::ctl {

/// The user that the daemon runs as, and what that user may do with files. For the user of this
/// process the system is asked. For another one the permission bits decide, not access lists.
class DaemonUser {
 public:
  /// The user of this process.
  DaemonUser();
  /// Nothing when there is no user of that name.
  static std::optional<DaemonUser> Named(const std::string& name);

  const std::string& Name() const { return name_; }
  bool MayRead(const std::string& path) const;

  /// Why the user cannot write a file there, which may have to be made, with its folders; empty
  /// when nothing is in the way. What the user of this process cannot see counts as in the way.
  std::string WhyNoFile(const std::string& path) const;
  /// The same for files in a folder, which may have to be made.
  std::string WhyNoFolder(const std::string& path) const;

 private:
  DaemonUser(std::string name, uid_t user, std::vector<gid_t> groups);
  bool May(const std::string& path, int mode) const;

  std::string name_;
  uid_t user_;
  std::vector<gid_t> groups_;
  bool is_this_ = false;
};

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SETTINGS_DAEMON_USER_H_
