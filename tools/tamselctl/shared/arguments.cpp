#include "shared/arguments.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace tmsc::ctl {

std::optional<int> ParseNumber(const std::string& text, int least, int most) {
  const bool is_hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const char* begin = text.data() + (is_hex ? 2 : 0);
  const char* end = text.data() + text.size();
  int value = 0;
  const auto [rest, error] = std::from_chars(begin, end, value, is_hex ? 16 : 10);
  if (error != std::errc() || rest != end || value < least || value > most) {
    return std::nullopt;
  }
  return value;
}

std::optional<std::vector<byte>> ParseHexBytes(const std::string& text) {
  std::vector<byte> bytes;
  std::size_t position = 0;
  while (position < text.size()) {
    if (text[position] == ' ') {
      ++position;
      continue;
    }
    const auto value = ParseNumber("0x" + text.substr(position, 2), 0, 0xFF);
    if (!value || position + 2 > text.size()) {
      return std::nullopt;
    }
    bytes.push_back(static_cast<byte>(*value));
    position += 2;
  }
  return bytes.empty() ? std::nullopt : std::make_optional(bytes);
}

std::optional<std::vector<int>> ParseNumberList(const std::string& text) {
  std::vector<int> numbers;
  std::size_t position = 0;
  while (position <= text.size()) {
    const std::size_t comma = std::min(text.find(',', position), text.size());
    const auto number = ParseNumber(text.substr(position, comma - position), 0, 0xFFFF);
    if (!number) {
      return std::nullopt;
    }
    numbers.push_back(*number);
    position = comma + 1;
  }
  return numbers.size() < 2 ? std::nullopt : std::make_optional(numbers);
}

std::optional<AddressedFrame> ParseAddressedFrame(const std::string& text) {
  AddressedFrame result;
  const std::size_t colon = text.find(':');
  if (colon != std::string::npos) {
    result.address = ParseNumber(text.substr(0, colon), 1, kMaxDeviceCountAtChannel);
    if (!result.address) {
      return std::nullopt;
    }
  }
  const auto frame = ParseHexBytes(colon == std::string::npos ? text : text.substr(colon + 1));
  if (!frame) {
    return std::nullopt;
  }
  result.frame = *frame;
  return result;
}

std::optional<Delimiter> ParseDelimiter(const std::string& text) {
  const std::size_t comma = text.find(',');
  const auto value = ParseNumber(text.substr(0, comma), 1, 0xFF);
  const auto bytes_after =
      comma == std::string::npos ? std::optional(0) : ParseNumber(text.substr(comma + 1), 0, 0xFF);
  if (!value || !bytes_after) {
    return std::nullopt;
  }
  return Delimiter{static_cast<byte>(*value), static_cast<byte>(*bytes_after)};
}

}  // namespace tmsc::ctl
