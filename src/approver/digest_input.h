#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/date.h"
#include "base/secret_text.h"
#include "crypto/digest.h"

namespace sorvane::approver {

/// DigestInput is what a digest of the link is taken over: a text that says what it is, a zero byte, then each field
/// behind its length (docs/phone-link.md, Digests and signatures).
class DigestInput {
 public:
  explicit DigestInput(std::string_view what);

  DigestInput& bytes(std::span<const std::uint8_t> field);
  DigestInput& text(std::string_view field) { return bytes(base::bytesOf(field)); }
  DigestInput& integer(std::int64_t field);
  DigestInput& date(base::Date field);
  DigestInput& optionalText(const std::optional<std::string>& field);
  DigestInput& optionalInteger(const std::optional<std::int64_t>& field);
  DigestInput& optionalTexts(const std::optional<std::vector<std::string>>& field);

  std::span<const std::uint8_t> view() const { return input_; }
  crypto::Sha256Digest digest() const { return crypto::sha256(input_); }

 private:
  DigestInput& absent();

  base::Bytes input_;
};

}  // namespace sorvane::approver
