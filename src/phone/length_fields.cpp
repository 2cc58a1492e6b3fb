#include "phone/length_fields.h"

#include "phone/fields.h"

namespace sorvane::phone {
namespace {

constexpr std::uint32_t kAbsent = 0xFFFF'FFFF;

template <typename Number>
void appendBigEndian(base::Bytes& out, Number number) {
  for (std::size_t shift = sizeof(Number) * 8; shift > 0; shift -= 8) {
    out.push_back(static_cast<std::uint8_t>(number >> (shift - 8) & 0xFF));
  }
}

void appendField(base::Bytes& out, std::span<const std::uint8_t> bytes) {
  appendBigEndian(out, static_cast<std::uint32_t>(bytes.size()));
  out.insert(out.end(), bytes.begin(), bytes.end());
}

}  // namespace

LengthFields::LengthFields(std::string_view domain) : bytes_(domain.begin(), domain.end()) {
  bytes_.push_back(0);
}

LengthFields& LengthFields::add(std::span<const std::uint8_t> bytes) {
  appendField(bytes_, bytes);
  return *this;
}

LengthFields& LengthFields::addAbsent() {
  appendBigEndian(bytes_, kAbsent);
  return *this;
}

LengthFields& LengthFields::add(base::Date date) {
  return add(std::optional(wireSeconds(date)));
}

LengthFields& LengthFields::add(const std::optional<std::string>& text) {
  return text ? add(std::string_view(*text)) : addAbsent();
}

LengthFields& LengthFields::add(const std::optional<std::int64_t>& number) {
  if (!number) return addAbsent();
  base::Bytes bytes;
  appendBigEndian(bytes, static_cast<std::uint64_t>(*number));
  return add(bytes);
}

LengthFields& LengthFields::add(const std::optional<std::vector<std::string>>& list) {
  if (!list) return addAbsent();
  base::Bytes items;
  appendBigEndian(items, static_cast<std::uint32_t>(list->size()));
  for (const std::string& item : *list) appendField(items, base::bytesOf(item));
  return add(items);
}

LengthFields& LengthFields::add(const std::map<std::string, std::string>& texts) {
  std::vector<std::string> list;
  for (const auto& [key, value] : texts) {
    list.push_back(key);
    list.push_back(value);
  }
  return add(std::optional(std::move(list)));
}

}  // namespace sorvane::phone
