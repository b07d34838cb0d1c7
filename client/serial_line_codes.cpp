#include "serial_line_codes.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <string_view>

namespace tmsc {
namespace {

template <std::size_t count>
constexpr bool IsInOrder(const SerialCode (&table)[count]) {
  for (std::size_t index = 0; index < count; ++index) {
    if (table[index].code != index) {
      return false;
    }
  }
  return true;
}
static_assert(IsInOrder(kSerialSpeeds) && IsInOrder(kSerialLines));

int SpeedOf(const SerialCode& speed) {
  return static_cast<int>(std::strtol(speed.name, nullptr, 10));
}

template <std::size_t count, typename Test>
int CodeOf(const SerialCode (&table)[count], const Test& is_it) {
  const auto* entry = std::find_if(std::begin(table), std::end(table), is_it);
  return entry != std::end(table) ? int{entry->code} : TAMSEL_BAD_VALUE;
}

template <std::size_t count>
const SerialCode* EntryOf(const SerialCode (&table)[count], int code) {
  return code >= 0 && code < static_cast<int>(count) ? &table[code] : nullptr;
}

}  // namespace
}  // namespace tmsc

int tamsel_baud_code(int bits_per_second) {
  return tmsc::CodeOf(tmsc::kSerialSpeeds, [bits_per_second](const tmsc::SerialCode& speed) {
    return tmsc::SpeedOf(speed) == bits_per_second;
  });
}

int tamsel_line_code(const char* format) {
  return tmsc::CodeOf(tmsc::kSerialLines, [format](const tmsc::SerialCode& line) {
    return std::string_view(line.name) == format;
  });
}

int tamsel_baud_of_code(int code) {
  const tmsc::SerialCode* entry = tmsc::EntryOf(tmsc::kSerialSpeeds, code);
  return entry != nullptr ? tmsc::SpeedOf(*entry) : 0;
}

const char* tamsel_line_of_code(int code) {
  const tmsc::SerialCode* entry = tmsc::EntryOf(tmsc::kSerialLines, code);
  return entry != nullptr ? entry->name : nullptr;
}
