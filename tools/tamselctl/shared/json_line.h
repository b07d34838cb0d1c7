#ifndef TAMSELCTL_SHARED_JSON_LINE_H_
#define TAMSELCTL_SHARED_JSON_LINE_H_

#include <nlohmann/json.hpp>
#include <ostream>

#include "shared/printable.h"

namespace tmsc::ctl {

/// Prints one line of JSON. Texts in it are printable: of others, or in another encoding, they may
/// be anything.
inline void PrintJsonLine(std::ostream& output, const nlohmann::ordered_json& json) {
  output << Printable(json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)) << '\n';
}

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_JSON_LINE_H_
