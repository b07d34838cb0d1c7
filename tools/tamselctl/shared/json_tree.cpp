#include "shared/json_tree.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tmsc::ctl {
namespace {

/// Walks over a text and says elsewhere how far it has come, which the parser keeps to itself.
class CountingIterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  CountingIterator(const std::string& text, std::size_t offset, std::size_t& reached)
      : text_(&text), offset_(offset), reached_(&reached) {}

  reference operator*() const { return (*text_)[offset_]; }
  CountingIterator& operator++() {
    *reached_ = ++offset_;
    return *this;
  }
  CountingIterator operator++(int) {
    CountingIterator former = *this;
    ++*this;
    return former;
  }
  bool operator==(const CountingIterator& other) const { return offset_ == other.offset_; }
  bool operator!=(const CountingIterator& other) const { return offset_ != other.offset_; }

 private:
  const std::string* text_;
  std::size_t offset_;
  std::size_t* reached_;
};

/// Takes the parser's events and puts the tree together.
class TreeBuilder : public nlohmann::json_sax<nlohmann::json> {
 public:
  TreeBuilder(const std::string& text, const std::size_t& reached, JsonTree& tree)
      : text_(text), reached_(reached), tree_(tree) {}

  // The names of the parser's interface.
  bool null() override { return Add(nullptr); }
  bool boolean(bool value) override { return Add(value); }
  bool number_integer(number_integer_t value) override { return Add(value); }
  bool number_unsigned(number_unsigned_t value) override { return Add(value); }
  bool number_float(number_float_t value, const string_t&) override { return Add(value); }
  bool string(string_t& value) override { return Add(std::move(value)); }
  bool binary(binary_t&) override { return false; }
  bool start_object(std::size_t) override { return Open(nlohmann::json::object()); }
  bool end_object() override { return Close(); }
  bool start_array(std::size_t) override { return Open(nlohmann::json::array()); }
  bool end_array() override { return Close(); }
  bool key(string_t& name) override {
    key_offset_ = TakeToken();
    key_ = std::move(name);
    return true;
  }
  bool parse_error(std::size_t position, const std::string&,
                   const nlohmann::json::exception& error) override {
    // The message names line and column, which the caller does in its own way.
    const std::string message = error.what();
    const std::size_t begin = message.find(": ");
    tree_.error = message.substr(begin == std::string::npos ? message.find(']') + 2 : begin + 2);
    tree_.error_offset = position == 0 ? 0 : position - 1;
    return false;
  }

 private:
  // Between two tokens that have an event stand only blanks, commas and colons. The parser has read
  // up to the end of the present one; behind a number one character more.
  std::size_t TakeToken() {
    const std::size_t begin = text_.find_first_not_of(" \t\r\n,:", end_of_last_);
    end_of_last_ = reached_;
    return std::min(begin, text_.size());
  }

  bool Add(nlohmann::json value) {
    JsonValue item;
    item.offset = TakeToken();
    item.value = std::move(value);
    item.key = std::exchange(key_, {});
    item.key_offset = key_offset_;
    if (open_.empty()) {
      tree_.root = std::move(item);
    } else {
      open_.back()->values.push_back(std::move(item));
    }
    return true;
  }

  bool Open(nlohmann::json value) {
    constexpr std::size_t kMostNested = 20;
    if (open_.size() == kMostNested) {
      tree_.error = "nested too deeply";
      tree_.error_offset = TakeToken();
      return false;
    }
    Add(std::move(value));
    open_.push_back(open_.empty() ? &*tree_.root : &open_.back()->values.back());
    return true;
  }

  bool Close() {
    TakeToken();
    open_.pop_back();
    return true;
  }

  const std::string& text_;
  const std::size_t& reached_;
  JsonTree& tree_;
  std::size_t end_of_last_ = 0;
  std::string key_;
  std::size_t key_offset_ = 0;
  // Values are added to the last one only, so none of these moves.
  std::vector<JsonValue*> open_;
};

}  // namespace

JsonTree ParseJson(const std::string& text) {
  JsonTree tree;
  std::size_t reached = 0;
  TreeBuilder builder(text, reached, tree);
  if (!nlohmann::json::sax_parse(CountingIterator(text, 0, reached),
                                 CountingIterator(text, text.size(), reached), &builder)) {
    tree.root.reset();
  }
  return tree;
}

TextPlace PlaceOf(const std::string& text, std::size_t offset) {
  TextPlace place;
  for (std::size_t index = 0; index < std::min(offset, text.size()); ++index) {
    if (text[index] == '\n') {
      ++place.line;
      place.column = 1;
    } else if ((static_cast<unsigned char>(text[index]) & 0xC0) != 0x80) {
      ++place.column;
    }
  }
  return place;
}

}  // namespace tmsc::ctl
