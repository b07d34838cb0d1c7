#ifndef TAMSELCTL_SHARED_PRINTABLE_H_
#define TAMSELCTL_SHARED_PRINTABLE_H_

#include <string>
#include <string_view>

namespace tmsc::ctl {

/// A text of others, from a file or a device, as it may be shown anywhere: control characters but
/// the tab, those of U+0080 to U+009F among them, and bytes that are no UTF-8 are replaced by
/// U+FFFD, so that nothing steers a terminal and every reader takes the text.
std::string Printable(std::string_view text);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_PRINTABLE_H_
