#ifndef TAMSELCTL_SHARED_JSON_TREE_H_
#define TAMSELCTL_SHARED_JSON_TREE_H_

#include <cstddef>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace tmsc::ctl {

/// A value of a JSON text that knows where it stands.
struct JsonValue {
  std::size_t offset = 0;         // of its first byte in the text
  nlohmann::json value;           // of an object or array: an empty one
  std::string key;                // of a member of an object
  std::size_t key_offset = 0;     // of the key's first byte
  std::vector<JsonValue> values;  // of an object or array, in order; keys may come twice
};

/// A JSON text, or what is wrong with it and at which byte.
struct JsonTree {
  std::optional<JsonValue> root;
  std::string error;
  std::size_t error_offset = 0;
};

JsonTree ParseJson(const std::string& text);

/// Line and column of a byte of `text`, both from 1; a column is a character of UTF-8.
struct TextPlace {
  int line = 1;
  int column = 1;
};
TextPlace PlaceOf(const std::string& text, std::size_t offset);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_JSON_TREE_H_
