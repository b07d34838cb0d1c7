#include "shared/value_type.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sstream>
#include <system_error>

namespace tmsc::ctl {
namespace {

struct TypeWords {
  const char* name;
  ValueType type;
  int registers;
};
constexpr TypeWords kTypes[] = {
    {"u16", ValueType::kU16, 1}, {"i16", ValueType::kI16, 1}, {"u32", ValueType::kU32, 2},
    {"i32", ValueType::kI32, 2}, {"f32", ValueType::kF32, 2}, {"string", ValueType::kString, 0},
    {"hex", ValueType::kHex, 1},
};

std::uint32_t FloatBits(float value) {
  std::uint32_t bits = 0;
  std::memcpy(&bits, &value, sizeof(bits));
  return bits;
}

nlohmann::ordered_json FloatValue(std::uint32_t bits) {
  float value = 0;
  std::memcpy(&value, &bits, sizeof(value));
  if (!std::isfinite(value)) {
    return nullptr;
  }
  // The shortest decimal number that stands for this float, not for the double that it becomes.
  char text[64];
  const auto [end, error] = std::to_chars(std::begin(text), std::end(text) - 1, value);
  *end = '\0';
  return error == std::errc() ? std::strtod(text, nullptr) : double{value};
}

nlohmann::ordered_json NumberValue(std::uint32_t bits, ValueType type) {
  switch (type) {
    case ValueType::kI16:
      return static_cast<std::int16_t>(bits);
    case ValueType::kI32:
      return static_cast<std::int32_t>(bits);
    case ValueType::kF32:
      return FloatValue(bits);
    case ValueType::kHex: {
      char digits[8];
      std::snprintf(digits, sizeof(digits), "%04X", bits);
      return digits;
    }
    default:
      return bits;
  }
}

std::string TextValue(const std::vector<int>& registers) {
  std::string text;
  for (const int value : registers) {
    text += static_cast<char>(value >> 8);
    text += static_cast<char>(value & 0xFF);
  }
  text.erase(std::min(text.find('\0'), text.size()));
  text.erase(text.find_last_not_of(' ') + 1);
  std::replace_if(
      text.begin(), text.end(), [](char letter) { return letter < ' ' || letter > '~'; }, '.');
  return text;
}

std::optional<std::uint32_t> ParseFloat(const std::string& text) {
  char* end = nullptr;
  const float value = std::strtof(text.c_str(), &end);
  const bool is_number = !text.empty() && std::strchr(" \t+", text[0]) == nullptr &&
                         end == text.c_str() + text.size() && std::isfinite(value);
  return is_number ? std::optional(FloatBits(value)) : std::nullopt;
}

std::optional<std::uint32_t> ParseInteger(const std::string& text, std::uint32_t most,
                                          bool is_hex) {
  const bool is_negative = text.size() > 1 && text[0] == '-';
  std::string digits = text.substr(is_negative ? 1 : 0);
  const bool has_prefix = digits.size() > 2 && digits[0] == '0' && (digits[1] | 0x20) == 'x';
  digits.erase(0, has_prefix ? 2 : 0);
  std::uint32_t value = 0;
  const auto [rest, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value,
                                             is_hex || has_prefix ? 16 : 10);
  if (error != std::errc() || rest != digits.data() + digits.size() ||
      value > (is_negative ? most / 2 + 1 : most)) {
    return std::nullopt;
  }
  return is_negative ? 0U - value : value;
}

std::vector<int> TextRegisters(std::string text, WordOrder order) {
  if (text.size() % 2 != 0) {
    text += '\0';
  }
  std::vector<int> registers;
  for (std::size_t index = 0; index < text.size(); index += 2) {
    registers.push_back(static_cast<unsigned char>(text[index]) << 8 |
                        static_cast<unsigned char>(text[index + 1]));
  }
  if (order == WordOrder::kLittle) {
    std::reverse(registers.begin(), registers.end());
  }
  return registers;
}

}  // namespace

const char* const kValueTypeNames = "u16, i16, u32, i32, f32, string, hex";

std::optional<ValueType> ParseValueType(const std::string& name) {
  const auto* found = std::find_if(std::begin(kTypes), std::end(kTypes),
                                   [&](const TypeWords& words) { return name == words.name; });
  return found == std::end(kTypes) ? std::nullopt : std::optional(found->type);
}

std::optional<WordOrder> ParseWordOrder(const std::string& name) {
  if (name == "big" || name == "little") {
    return name == "big" ? WordOrder::kBig : WordOrder::kLittle;
  }
  return std::nullopt;
}

int RegistersOf(ValueType type) {
  return std::find_if(std::begin(kTypes), std::end(kTypes),
                      [&](const TypeWords& words) { return type == words.type; })
      ->registers;
}

std::vector<nlohmann::ordered_json> DecodeValues(const std::vector<int>& registers, ValueType type,
                                                 WordOrder order) {
  if (type == ValueType::kString) {
    const bool is_little = order == WordOrder::kLittle;
    return {
        TextValue(is_little ? std::vector<int>(registers.rbegin(), registers.rend()) : registers)};
  }
  const auto size = static_cast<std::size_t>(RegistersOf(type));
  std::vector<nlohmann::ordered_json> values;
  for (std::size_t first = 0; first + size <= registers.size(); first += size) {
    std::uint32_t bits = 0;
    for (std::size_t index = 0; index < size; ++index) {
      const std::size_t place = order == WordOrder::kLittle ? size - 1 - index : index;
      bits = bits << 16 | static_cast<std::uint32_t>(registers[first + place]);
    }
    values.push_back(NumberValue(bits, type));
  }
  return values;
}

std::optional<std::vector<int>> EncodeValues(const std::string& text, ValueType type,
                                             WordOrder order) {
  if (type == ValueType::kString) {
    return text.empty() ? std::nullopt : std::optional(TextRegisters(text, order));
  }
  const int size = RegistersOf(type);
  std::vector<int> registers;
  std::istringstream parts(text + ",");
  for (std::string part; std::getline(parts, part, ',');) {
    const auto bits = type == ValueType::kF32 ? ParseFloat(part)
                                              : ParseInteger(part, size == 1 ? 0xFFFF : 0xFFFFFFFF,
                                                             type == ValueType::kHex);
    if (!bits) {
      return std::nullopt;
    }
    for (int index = 0; index < size; ++index) {
      const int place = order == WordOrder::kLittle ? index : size - 1 - index;
      registers.push_back(static_cast<int>(*bits >> 16 * place & 0xFFFF));
    }
  }
  return registers;
}

}  // namespace tmsc::ctl
