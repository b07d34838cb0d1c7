#include "shared/printable.h"

#include <cstddef>

namespace tmsc::ctl {
namespace {

struct Character {
  std::size_t length = 1;  // bytes
  bool is_shown = false;
};

/// What `text`, which is not empty, begins with; a byte that is no UTF-8 counts for itself.
Character FirstOf(std::string_view text) {
  const unsigned first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) {
    return {1, (first >= ' ' && first != 0x7F) || first == '\t'};
  }
  const std::size_t length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  if (first < 0xC0 || first >= 0xF8 || text.size() < length) {
    return {};
  }
  unsigned code = first & (0x7FU >> length);
  for (std::size_t index = 1; index < length; ++index) {
    const unsigned next = static_cast<unsigned char>(text[index]);
    if ((next & 0xC0U) != 0x80) {
      return {};
    }
    code = code << 6U | (next & 0x3FU);
  }
  constexpr unsigned kLeast[] = {0x80, 0x800, 0x10000};  // less has a shorter form
  const bool is_surrogate = code >= 0xD800 && code < 0xE000;
  if (code < kLeast[length - 2] || code > 0x10FFFF || is_surrogate) {
    return {};
  }
  return {length, code >= 0xA0};
}

}  // namespace

std::string Printable(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const Character character = FirstOf(text);
    result += character.is_shown ? text.substr(0, character.length) : "\uFFFD";
    text.remove_prefix(character.length);
  }
  return result;
}

}  // namespace tmsc::ctl
