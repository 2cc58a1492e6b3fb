#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/secret_text.h"

namespace sorvane::base {

/// JsonWriter appends JSON text to a wiped buffer without building a value first, so that large records are written at
/// memory speed and values leave no copies. The caller keeps the key order; strings must be UTF-8. Forward slashes
/// stand plain.
class JsonWriter {
 public:
  enum class Style { compact, pretty };
  explicit JsonWriter(Style style = Style::compact) : style_(style) {}

  JsonWriter& beginObject();
  JsonWriter& endObject();
  JsonWriter& beginArray();
  JsonWriter& endArray();
  /// The next value's key.
  JsonWriter& key(std::string_view name);
  JsonWriter& string(std::string_view text);
  JsonWriter& integer(std::int64_t number);
  JsonWriter& boolean(bool value);
  /// Bytes as a string of standard base64.
  JsonWriter& base64(std::span<const std::uint8_t> bytes);
  /// A number that is already JSON text.
  JsonWriter& raw(std::string_view text);

  JsonWriter& field(std::string_view name, std::string_view text) { return key(name).string(text); }
  /// Left out when absent. A template so that a plain text never converts to an optional on the way.
  template <std::same_as<std::optional<std::string>> Text>
  JsonWriter& field(std::string_view name, const Text& text) {
    return text ? key(name).string(*text) : *this;
  }
  JsonWriter& strings(std::string_view name, const std::vector<std::string>& list);

  void reserve(std::size_t bytes) { text_.reserve(bytes); }
  std::string_view view() const { return text_.view(); }
  /// Forgets the text written so far and goes on behind it: for who takes a large text a piece at a time.
  void drop() { text_.truncate(0); }
  SecretText take() { return std::move(text_); }

 private:
  void separate();
  void newLine();
  void open(char bracket);
  void close(char bracket);

  Style style_;
  SecretText text_;
  std::size_t depth_ = 0;
  bool first_ = true;
  bool afterKey_ = false;
};

/// Where the first character at or behind `at` stands that a JSON string cannot hold as it is: a quote, a backslash or
/// a control character. The size of the text when there is none.
std::size_t nextJsonSpecial(std::string_view text, std::size_t at);

/// Appends `text` as a JSON string with its quotes.
void appendJsonString(SecretText& out, std::string_view text);

}  // namespace sorvane::base
