#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"
#include "base/json.h"
#include "base/secret_text.h"

namespace sorvane::agent {

/// Thrown and caught by decoders only: the text has another shape than the record.
struct WrongShape {};

/// ParsedMessage is the JSON tree of a message. Every text in it is wiped when it goes: messages hold tokens, values
/// and passphrases.
class ParsedMessage {
 public:
  /// Throws WrongShape when base::parseJson refuses the text.
  explicit ParsedMessage(std::string_view text);
  ~ParsedMessage();
  ParsedMessage(const ParsedMessage&) = delete;
  ParsedMessage& operator=(const ParsedMessage&) = delete;
  const base::Json& get() const { return *value_; }

 private:
  std::unique_ptr<base::Json> value_;
};

/// A text as it stands; throws WrongShape for anything else.
const std::string& anyText(const base::Json& value);
/// Names, paths and words: none of them may hold a NUL byte, which ends them early for the system.
const std::string& plainText(const base::Json& value);

/// Fields reads one field of an object, or nothing when it is absent or null. Throws WrongShape for another type than
/// the one that is asked for.
class Fields {
 public:
  explicit Fields(const base::Json& object);
  const base::Json* find(const char* name) const;
  const base::Json& need(const char* name) const;
  std::optional<std::string> text(const char* name) const;
  std::optional<base::SecretText> secret(const char* name) const;
  std::optional<std::int64_t> integer(const char* name) const;
  std::optional<std::vector<std::string>> list(const char* name) const;
  bool boolean(const char* name) const;
  std::int64_t needInteger(const char* name) const;
  base::Date date(const char* name) const;

 private:
  const base::Json& object_;
};

/// The record that `read` makes of the text, or nothing when the text has another shape.
template <typename Record>
std::optional<Record> decodeMessage(std::string_view text, Record (*read)(const base::Json&)) {
  try {
    const ParsedMessage message(text);
    return read(message.get());
  } catch (const WrongShape&) {
    return std::nullopt;
  }
}

}  // namespace sorvane::agent
