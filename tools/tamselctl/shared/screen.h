#ifndef TAMSELCTL_SHARED_SCREEN_H_
#define TAMSELCTL_SHARED_SCREEN_H_

#include <cstdint>
#include <functional>
#include <iosfwd>

namespace tmsc::ctl {

/// Shows something again and again, `count` times (0: without an end) or until SIGINT or SIGTERM
/// comes, which ends it cleanly: on a terminal, when `in_place`, each picture over the former; the
/// lines that the terminal has no room for are counted in its last one. Else one after the other.
/// `draw` prints one picture. Standard output that fails ends it, too. Main thread; `period_ms` of
/// 1 or more.
void ShowRepeatedly(std::int64_t period_ms, int count, bool in_place,
                    const std::function<void(std::ostream&)>& draw);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_SCREEN_H_
