#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "base/secret_text.h"
#include "crypto/agreement.h"
#include "crypto/key.h"
#include "phone/records.h"

namespace sorvane::phone {

/// Channel seals and opens the records between one computer and one phone under the key that both derive of their
/// long-term keys (docs/phone-link.md, Channel). A box opens only as the record it was sealed as, in the direction it
/// was sealed for. Move-only; any thread.
class Channel {
 public:
  /// `own` is the key of the side `side`. nullopt when the two keys share nothing but zeros: `peer` is no honest key.
  static std::optional<Channel> of(Side side, const crypto::AgreementKey& own, const PublicKey& peer);

  /// A fresh box. The record must be one that this side sends.
  template <typename Record>
  base::Bytes seal(const Record& record) const {
    return sealText(encodeRecord(record).view(), Record::kLabel, Record::kFrom.value_or(side_));
  }
  /// The record of a box that the other side sealed; nullopt when the box or the record in it is anything else.
  template <typename Record>
  std::optional<Record> open(std::span<const std::uint8_t> box) const {
    const auto text = openText(box, Record::kLabel, Record::kFrom.value_or(otherSide(side_)));
    return text ? decodeRecord<Record>(text->view()) : std::nullopt;
  }

  base::Bytes sealText(std::string_view json, std::string_view label, Side from) const;
  std::optional<base::SecretText> openText(std::span<const std::uint8_t> box, std::string_view label, Side from) const;

 private:
  Channel(Side side, crypto::SymmetricKey key) : side_(side), key_(std::move(key)) {}
  Side side_;
  crypto::SymmetricKey key_;
};

}  // namespace sorvane::phone
