#ifndef TAMSELCTL_SHARED_VALUE_TYPE_H_
#define TAMSELCTL_SHARED_VALUE_TYPE_H_

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace tmsc::ctl {

/// What registers hold.
enum class ValueType { kU16, kI16, kU32, kI32, kF32, kString, kHex };

/// In which order the registers of one value stand.
enum class WordOrder { kBig, kLittle };  // the most significant one first; last

/// u16, i16, u32, i32, f32, string or hex; nothing for any other text.
std::optional<ValueType> ParseValueType(const std::string& name);
/// big or little; nothing for any other text.
std::optional<WordOrder> ParseWordOrder(const std::string& name);
/// The names above, with commas between, for messages.
extern const char* const kValueTypeNames;

/// Registers that one value takes; 0 for string, which takes all there are.
int RegistersOf(ValueType type);

/// The values that registers hold, as JSON: numbers, a text, or for hex four digits a register. A
/// text ends at the first NUL, blanks at its end are left out, and bytes that are no printable
/// ASCII are shown as '.'. A float that is no number is null. The number of registers is a multiple
/// of what one value takes.
std::vector<nlohmann::ordered_json> DecodeValues(const std::vector<int>& registers, ValueType type,
                                                 WordOrder order);

/// The registers for values written with commas between, or for a text, which is taken as it is and
/// filled up with a NUL. Numbers are decimal or, after 0x, hexadecimal; integers may have the
/// range of their size with or without a sign. Nothing when `text` is anything else.
std::optional<std::vector<int>> EncodeValues(const std::string& text, ValueType type,
                                             WordOrder order);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_VALUE_TYPE_H_
