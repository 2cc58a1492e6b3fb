#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/date.h"
#include "base/secret_text.h"

namespace sorvane::phone {

/// LengthFields collects what a digest or a proof is made over (docs/phone-link.md, Digests and signatures): a domain
/// text, a zero byte, and fields, each preceded by its length in 4 bytes. No two lists of fields give the same bytes.
class LengthFields {
 public:
  explicit LengthFields(std::string_view domain);

  LengthFields& add(std::span<const std::uint8_t> bytes);
  LengthFields& add(std::string_view text) { return add(base::bytesOf(text)); }
  LengthFields& add(const std::string& text) { return add(std::string_view(text)); }
  LengthFields& add(base::Date date);
  LengthFields& add(const std::optional<std::string>& text);
  LengthFields& add(const std::optional<std::int64_t>& number);
  LengthFields& add(const std::optional<std::vector<std::string>>& list);
  LengthFields& add(const std::map<std::string, std::string>& texts);

  std::span<const std::uint8_t> bytes() const { return bytes_; }

 private:
  LengthFields& addAbsent();
  base::Bytes bytes_;
};

}  // namespace sorvane::phone
