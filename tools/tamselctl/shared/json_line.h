#ifndef TAMSELCTL_SHARED_JSON_LINE_H_
#define TAMSELCTL_SHARED_JSON_LINE_H_

#include <nlohmann/json.hpp>
#include <ostream>

namespace tmsc::ctl {

/// Prints one line of JSON. A text that is no UTF-8, such as a path or a name from a file in
/// another encoding, has its broken bytes replaced.
inline void PrintJsonLine(std::ostream& output, const nlohmann::ordered_json& json) {
  output << json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
}

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_JSON_LINE_H_
