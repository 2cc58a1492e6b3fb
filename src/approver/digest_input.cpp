#include "approver/digest_input.h"

namespace sorvane::approver {
namespace {

constexpr std::uint32_t kAbsent = 0xFFFFFFFF;

/// Big-endian, as many bytes as the type has.
template <typename Number>
void appendNumber(base::Bytes& out, Number number) {
  for (std::size_t shift = 8 * sizeof number; shift > 0; shift -= 8)
    out.push_back(static_cast<std::uint8_t>(number >> (shift - 8) & 0xFFU));
}

void appendField(base::Bytes& out, std::span<const std::uint8_t> field) {
  appendNumber(out, static_cast<std::uint32_t>(field.size()));
  out.insert(out.end(), field.begin(), field.end());
}

}  // namespace

DigestInput::DigestInput(std::string_view what) : input_(what.begin(), what.end()) {
  input_.push_back(0);
}

DigestInput& DigestInput::bytes(std::span<const std::uint8_t> field) {
  appendField(input_, field);
  return *this;
}

DigestInput& DigestInput::integer(std::int64_t field) {
  base::Bytes number;
  appendNumber(number, static_cast<std::uint64_t>(field));
  return bytes(number);
}

DigestInput& DigestInput::date(base::Date field) {
  return integer((field.time_since_epoch() - base::kReferenceDateOffset).count());
}

DigestInput& DigestInput::optionalText(const std::optional<std::string>& field) {
  return field ? text(*field) : absent();
}

DigestInput& DigestInput::optionalInteger(const std::optional<std::int64_t>& field) {
  return field ? integer(*field) : absent();
}

DigestInput& DigestInput::optionalTexts(const std::optional<std::vector<std::string>>& field) {
  if (!field) return absent();
  base::Bytes list;
  appendNumber(list, static_cast<std::uint32_t>(field->size()));
  for (const std::string& item : *field) appendField(list, base::bytesOf(item));
  return bytes(list);
}

DigestInput& DigestInput::absent() {
  appendNumber(input_, kAbsent);
  return *this;
}

}  // namespace sorvane::approver
