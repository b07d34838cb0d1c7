#include "utility/string_util.h"

#include <Poco/String.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <limits>

namespace tmsc {

namespace {

constexpr int kDefaultLogFileSize = 10 * 1024 * 1024;

/// Runs one of the strto... functions and applies the error rule that they share here.
template <typename Convert>
auto ConvertNumber(const std::string& str, int* error, Convert convert) {
  char* end = nullptr;
  errno = 0;
  const auto value = convert(str.c_str(), &end);
  if ((errno != 0 || *end != '\0') && error != nullptr) {
    *error = -1;
  }
  return value;
}

long long UnitMultiplier(char unit) {
  switch (std::tolower(static_cast<unsigned char>(unit))) {
    case 'k':
      return 1024;
    case 'm':
      return 1024 * 1024;
    case 'g':
      return 1024 * 1024 * 1024;
    default:
      return 1;
  }
}

}  // namespace

long StringUtil::StringToLong(const std::string& str, int* error) {
  return ConvertNumber(str, error,
                       [](const char* text, char** end) { return strtol(text, end, 0); });
}

long long StringUtil::StringToLongLong(const std::string& str, int* error) {
  return ConvertNumber(str, error,
                       [](const char* text, char** end) { return strtoll(text, end, 0); });
}

double StringUtil::StringToDouble(const std::string& str, int* error) {
  return ConvertNumber(str, error, strtod);
}

long StringUtil::HexStringToLong(const std::string& str, int* error) {
  return ConvertNumber(str, error,
                       [](const char* text, char** end) { return strtol(text, end, 16); });
}

int StringUtil::StringFileSizeToLogFileSize(const std::string& str) {
  if (str.empty()) {
    return kDefaultLogFileSize;
  }
  std::string number_text = str;
  long long multiplier = 1;
  const std::string::size_type unit = str.find_first_of("bB");
  if (unit != std::string::npos && unit != 0) {
    multiplier = UnitMultiplier(str[unit - 1]);
    number_text = str.substr(0, multiplier == 1 ? unit : unit - 1);
  }
  int error = 0;
  // 64 bits on every machine: a size that is too large is no unreadable number.
  long long number = StringToLongLong(number_text, &error);
  constexpr long long kLimit = std::numeric_limits<int>::max();
  const bool is_beyond_64_bits = number == std::numeric_limits<long long>::max() ||
                                 number == std::numeric_limits<long long>::min();
  if (error != 0 && !is_beyond_64_bits) {
    number = 1;
  }
  if (number < 0 || number > kLimit / multiplier) {
    return kDefaultLogFileSize;
  }
  return static_cast<int>(number * multiplier);
}

std::string StringUtil::BytesToHexString(unsigned char* bytes, unsigned int bytes_length) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(std::size_t{2} * bytes_length);
  for (unsigned int i = 0; i < bytes_length; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0x0f];
  }
  return text;
}

std::string StringUtil::BytesToASCII(unsigned char* bytes, unsigned int bytes_length) {
  return std::string(bytes, bytes + bytes_length);
}

bool StringUtil::StartWith(const std::string& target, const std::string& prefix) {
  return target.compare(0, prefix.size(), prefix) == 0;
}

bool StringUtil::EndWith(const std::string& target, const std::string& suffix) {
  return target.size() >= suffix.size() &&
         target.compare(target.size() - suffix.size(), suffix.size(), suffix) == 0;
}

int StringUtil::ICompare(const std::string& s, const std::string& t) {
  return Poco::icompare(s, t);
}

std::string StringUtil::LoadFromFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string content;
  char part[4096];
  // A read of a folder fails as one of a damaged file does: no content, no exception.
  while (file.read(part, sizeof(part)) || file.gcount() > 0) {
    content.append(part, static_cast<std::size_t>(file.gcount()));
  }
  return file.bad() ? std::string() : content;
}

std::string StringUtil::Trim(const std::string& str) {
  return Poco::trim(str);
}

}  // namespace tmsc
