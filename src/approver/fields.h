#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "approver/frame.h"
#include "base/date.h"
#include "base/secret_text.h"

namespace sorvane::approver {

/// Fields reads the keys of one JSON object of the link. Whatever is not as it has to be is LinkError (unreadable); a
/// key that is there with null is not absent. Keys nobody asks for are passed over.
class Fields {
 public:
  /// Reads `text` within the limits of the link: 16 levels, no key twice, UTF-8, no NUL byte.
  static Fields of(std::string_view text);

  std::string text(const char* key) const;
  std::optional<std::string> optionalText(const char* key) const;
  bool boolean(const char* key) const;
  std::optional<std::int64_t> optionalInteger(const char* key) const;
  base::Date date(const char* key) const;
  std::optional<std::vector<std::string>> optionalTexts(const char* key) const;
  std::map<std::string, std::string> textsByName(const char* key) const;
  base::Bytes bytes(const char* key) const;
  template <std::size_t kSize>
  std::array<std::uint8_t, kSize> bytesOfSize(const char* key) const {
    const base::Bytes found = bytes(key);
    if (found.size() != kSize) throw LinkError(LinkError::Case::unreadable);
    std::array<std::uint8_t, kSize> out{};
    std::copy(found.begin(), found.end(), out.begin());
    return out;
  }
  Fields object(const char* key) const;
  bool has(const char* key) const { return object_.contains(key); }

 private:
  explicit Fields(nlohmann::json object);
  const nlohmann::json& at(const char* key) const;

  nlohmann::json object_;
};

}  // namespace sorvane::approver
