#ifndef TAMSEL_UTILITY_STRING_UTIL_H_
#define TAMSEL_UTILITY_STRING_UTIL_H_

#include <string>

namespace tmsc {

/// String conversions and byte dumps. No state; callable from any thread. Nothing here throws on
/// bad input.
///
/// The number conversions store -1 through `error`, when it is not null, if the text is out of
/// range or has characters behind the number, and otherwise leave it alone: initialise it to 0. The
/// value converted so far is returned in either case. An empty text is 0 without an error. Leading
/// white space and a sign are accepted.
class StringUtil {
 public:
  virtual ~StringUtil() = default;

  /// Base 0: "0x" introduces hexadecimal, a leading 0 octal.
  static long StringToLong(const std::string& str, int* error);
  static long long StringToLongLong(const std::string& str, int* error);
  static double StringToDouble(const std::string& str, int* error);
  /// Base 16, with or without "0x".
  static long HexStringToLong(const std::string& str, int* error);

  /// Bytes meant by a size text such as "500KB". The units B, KB, MB and GB, in either case, are
  /// powers of 1024. A number that cannot be read counts as 1. An empty text, a negative size and
  /// one of 2 GiB or more count as 10485760.
  static int StringFileSizeToLogFileSize(const std::string& str);

  /// Two lower-case hexadecimal digits a byte, nothing between them.
  static std::string BytesToHexString(unsigned char* bytes, unsigned int bytes_length);
  /// The bytes as characters, nothing escaped.
  static std::string BytesToASCII(unsigned char* bytes, unsigned int bytes_length);

  static bool StartWith(const std::string& target, const std::string& prefix);
  static bool EndWith(const std::string& target, const std::string& suffix);

  /// Comparison without regard to case: negative, 0 or positive.
  static int ICompare(const std::string& s, const std::string& t);

  /// The whole content of a file; empty when it cannot be read, as a folder cannot.
  static std::string LoadFromFile(const std::string& path);

  /// A copy without white space at either end.
  static std::string Trim(const std::string& str);
};

}  // namespace tmsc

#endif  // TAMSEL_UTILITY_STRING_UTIL_H_
