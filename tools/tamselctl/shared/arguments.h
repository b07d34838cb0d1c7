#ifndef TAMSELCTL_SHARED_ARGUMENTS_H_
#define TAMSELCTL_SHARED_ARGUMENTS_H_

#include <optional>
#include <string>
#include <vector>

#include "communication_common.h"

namespace tmsc::ctl {

/// A number written in decimal or, after 0x, in hexadecimal digits, all of `text`; nothing when it
/// is not one or not `least` to `most`, both 0 or more.
std::optional<int> ParseNumber(const std::string& text, int least, int most);

/// One or more bytes of two hexadecimal digits each, blanks allowed between bytes; nothing when
/// `text` is anything else.
std::optional<std::vector<byte>> ParseHexBytes(const std::string& text);

/// Two or more numbers of 0 to 65535 with commas between; nothing when `text` is anything else.
std::optional<std::vector<int>> ParseNumberList(const std::string& text);

/// A frame for one device, or for all of them when there is no address.
struct AddressedFrame {
  std::optional<int> address;
  std::vector<byte> frame;
};

/// HEX or ADDRESS:HEX; nothing when `text` is not of that form.
std::optional<AddressedFrame> ParseAddressedFrame(const std::string& text);

/// The byte that ends an answer on RS485 and how many bytes follow it.
struct Delimiter {
  byte value = 0;
  byte bytes_after = 0;
};

/// BYTE, 1 to 255, or BYTE,AFTER with 0 to 255; nothing when `text` is not of that form.
std::optional<Delimiter> ParseDelimiter(const std::string& text);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_ARGUMENTS_H_
