#include "unlock/backup_recovery_key.h"

#include <array>
#include <vector>

#include "base/ids.h"
#include "base/unicode.h"
#include "crypto/derivation.h"
#include "unlock/backup_error.h"

namespace sorvane::unlock {
namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";
constexpr std::string_view kSalt = "sorvane.recovery.v1";
constexpr std::size_t kDigits = kRecoveryKeyBytes * 8 / 5;
constexpr std::size_t kGroups = (kDigits + kRecoveryGroupCharacters - 1) / kRecoveryGroupCharacters;

/// What one typed character stands for: a digit's value, nothing, or no digit of the alphabet.
constexpr int kSeparator = -1;
constexpr int kNoDigit = -2;

int meaningOf(const base::Decoded& typed) {
  if (!typed.valid) return kNoDigit;
  char32_t c = typed.character;
  if (c >= 'a' && c <= 'z') c -= 'a' - 'A';
  if (c == 0x131) c = 'I';  // the dotless i of a Turkish keyboard
  if (c == 0x17F) c = 'S';  // the long s
  if (c < 0x80) {
    const std::size_t found = kAlphabet.find(static_cast<char>(c));
    if (found != std::string_view::npos) return static_cast<int>(found);
  }
  return base::isLetterOrNumber(c) ? kNoDigit : kSeparator;
}

template <typename Each>
void eachMeaning(std::string_view typed, const Each& each) {
  while (!typed.empty()) {
    const base::Decoded decoded = base::decodeUtf8(typed);
    typed.remove_prefix(decoded.size);
    each(meaningOf(decoded));
  }
}

}  // namespace

base::SecretText newRecoveryKey() {
  base::SecretText bytes;
  bytes.resize(kRecoveryKeyBytes);
  base::fillRandom({reinterpret_cast<std::uint8_t*>(bytes.data()), bytes.size()});
  return recoveryKeyText(bytes.bytes());
}

base::SecretText recoveryKeyText(std::span<const std::uint8_t> bytes) {
  base::SecretText text;
  std::size_t written = 0;
  const auto put = [&](unsigned digit) {
    if (written > 0 && written % kRecoveryGroupCharacters == 0) text.push_back('-');
    text.push_back(kAlphabet[digit & 31]);
    ++written;
  };
  unsigned held = 0, bits = 0;
  for (const std::uint8_t byte : bytes) {
    held = (held << 8 | byte) & 0xFFFF;
    for (bits += 8; bits >= 5; bits -= 5) put(held >> (bits - 5));
  }
  if (bits > 0) put(held << (5 - bits));
  return text;
}

std::optional<base::SecretText> recoveryKeyBytes(std::string_view typed) {
  base::SecretText bytes;
  unsigned held = 0, bits = 0;
  bool good = true;
  eachMeaning(typed, [&](int meaning) {
    if (meaning == kSeparator) return;
    good = good && meaning != kNoDigit;
    held = (held << 5 | static_cast<unsigned>(meaning & 31)) & 0xFFFF;
    bits += 5;
    if (bits < 8) return;
    bits -= 8;
    bytes.push_back(static_cast<char>(held >> bits & 0xFF));
  });
  // A last group that no whole byte needed, or bits behind the last byte, would let several texts stand for one key.
  const bool canonical = bits < 5 && (held & ((1U << bits) - 1)) == 0;
  if (!good || !canonical || bytes.size() < kMinRecoveryKeyBytes) return std::nullopt;
  return bytes;
}

std::optional<int> suspectRecoveryGroup(std::string_view typed) {
  std::vector<std::size_t> lengths;
  bool open = false;
  eachMeaning(typed, [&](int meaning) {
    if (meaning == kSeparator) {
      open = false;
      return;
    }
    if (!open) lengths.push_back(0);
    open = true;
    ++lengths.back();
  });
  if (lengths.size() != kGroups) return std::nullopt;
  std::optional<int> suspect;
  for (std::size_t i = 0; i < kGroups; ++i) {
    const std::size_t expected = i + 1 < kGroups ? kRecoveryGroupCharacters : kDigits % kRecoveryGroupCharacters;
    if (lengths[i] == expected) continue;
    if (suspect) return std::nullopt;
    suspect = static_cast<int>(i + 1);
  }
  return suspect;
}

crypto::SymmetricKey recoveryWrappingKey(std::string_view typed) {
  const auto bytes = recoveryKeyBytes(typed);
  if (!bytes) throw CryptoError::badKey(suspectRecoveryGroup(typed));
  base::SecretText key;
  key.resize(crypto::SymmetricKey::kBytes);
  crypto::hkdfSha256(bytes->bytes(), base::bytesOf(kSalt), {},
                     {reinterpret_cast<std::uint8_t*>(key.data()), key.size()});
  return *crypto::SymmetricKey::fromBytes(key.bytes());
}

}  // namespace sorvane::unlock
