#include "platform/macos/bonjour_text.h"

#include <dns_sd.h>

#include <algorithm>
#include <limits>

#include "base/unicode.h"

namespace sorvane::platform {
namespace {

constexpr std::size_t kMostNameBytes = 63;
constexpr std::size_t kMostRecordBytes = 255;

/// TextRecords is a resource record that grows.
class TextRecords {
 public:
  TextRecords() { ::TXTRecordCreate(&records_, 0, nullptr); }
  ~TextRecords() { ::TXTRecordDeallocate(&records_); }
  TextRecords(const TextRecords&) = delete;
  TextRecords& operator=(const TextRecords&) = delete;

  bool add(const std::string& record) {
    const std::size_t sign = record.find('=');
    const std::string key = record.substr(0, sign);
    if (!isKey(key) || record.size() > kMostRecordBytes) return false;
    const bool hasValue = sign != std::string::npos;
    const std::string_view value = hasValue ? std::string_view(record).substr(sign + 1) : std::string_view();
    return ::TXTRecordSetValue(&records_, key.c_str(), static_cast<std::uint8_t>(value.size()),
                               hasValue ? value.data() : nullptr) == kDNSServiceErr_NoError;
  }

  std::vector<std::uint8_t> bytes() const {
    const auto* const first = static_cast<const std::uint8_t*>(::TXTRecordGetBytesPtr(&records_));
    return std::vector<std::uint8_t>(first, first + ::TXTRecordGetLength(&records_));
  }

 private:
  /// The libraries differ in what they take, so it is asked here.
  static bool isKey(std::string_view key) {
    return !key.empty() && std::all_of(key.begin(), key.end(), [](char c) { return c >= 0x20 && c <= 0x7e; });
  }
  TXTRecordRef records_{};
};

}  // namespace

std::optional<std::vector<std::uint8_t>> bonjourText(const std::vector<std::string>& records) {
  TextRecords text;
  for (const std::string& record : records) {
    if (!text.add(record)) return std::nullopt;
  }
  return text.bytes();
}

bool bonjourTextHas(std::string_view text, const std::string& key, std::string_view value) {
  if (text.size() > std::numeric_limits<std::uint16_t>::max()) return false;
  std::uint8_t size = 0;
  const void* const found =
      ::TXTRecordGetValuePtr(static_cast<std::uint16_t>(text.size()), text.data(), key.c_str(), &size);
  return found != nullptr && std::string_view(static_cast<const char*>(found), size) == value;
}

std::string bonjourName(std::string_view name) {
  const std::string whole = base::repairedUtf8(name);
  return std::string(base::prefixOfWholeCharacters(whole, kMostNameBytes));
}

}  // namespace sorvane::platform
