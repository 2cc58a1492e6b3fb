#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/date.h"
#include "base/json.h"
#include "base/json_writer.h"
#include "base/secret_text.h"

namespace sorvane::phone {

/// Thrown and caught by decoders only: the text has another shape than the record.
struct WrongShape {};

/// JSON of the link has at most so many levels.
inline constexpr int kMostLevels = 16;

/// ParsedText is the JSON tree of one text of the link. Throws WrongShape for what is no strict JSON or too deep.
class ParsedText {
 public:
  explicit ParsedText(std::string_view text);
  ~ParsedText();
  ParsedText(const ParsedText&) = delete;
  ParsedText& operator=(const ParsedText&) = delete;
  const base::Json& get() const { return *value_; }

 private:
  std::unique_ptr<base::Json> value_;
};

/// Fields reads one field of an object; an optional one that is absent is nothing, and null is not absent. Keys nobody
/// asks for are passed over. Throws WrongShape for another type than the one that is asked for.
class Fields {
 public:
  explicit Fields(const base::Json& object);
  bool has(const char* name) const;
  Fields object(const char* name) const;
  std::string text(const char* name) const;
  std::optional<std::string> optionalText(const char* name) const;
  bool boolean(const char* name) const;
  std::int64_t integer(const char* name) const;
  std::optional<std::int64_t> optionalInteger(const char* name) const;
  std::optional<std::vector<std::string>> optionalTexts(const char* name) const;
  std::map<std::string, std::string> textsByName(const char* name) const;
  base::Date date(const char* name) const;
  base::Bytes bytes(const char* name) const;
  std::optional<base::Bytes> optionalBytes(const char* name) const;
  /// Bytes of this size only.
  template <std::size_t size>
  std::array<std::uint8_t, size> bytesOf(const char* name) const {
    const base::Bytes found = bytes(name);
    if (found.size() != size) throw WrongShape{};
    std::array<std::uint8_t, size> out{};
    std::copy(found.begin(), found.end(), out.begin());
    return out;
  }

 private:
  const base::Json& need(const char* name) const;
  const base::Json& object_;
};

/// A date as the link sends it: whole seconds since the reference date.
std::int64_t wireSeconds(base::Date date);

/// The record that `read` makes of the text, or nothing when the text has another shape.
template <typename Record, typename Read>
std::optional<Record> decodedWith(std::string_view text, const Read& read) {
  try {
    const ParsedText parsed(text);
    return read(Fields(parsed.get()));
  } catch (const WrongShape&) {
    return std::nullopt;
  }
}

}  // namespace sorvane::phone
