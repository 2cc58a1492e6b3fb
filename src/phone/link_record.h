#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "crypto/agreement.h"
#include "phone/registry.h"

namespace sorvane::phone {

/// What the registry keeps: who this computer is on the link, where it listened last, and the phones it knows.
struct LinkRecord {
  crypto::AgreementKey identity;
  std::uint16_t port = 0;  ///< 0: it never listened
  std::vector<PairedPhone> phones;

  LinkRecord clone() const { return {identity.clone(), port, phones}; }
  /// Of this public key; null when there is none.
  const PairedPhone* find(const PublicKey& phone) const;
};

/// The record's text: JSON with `version` 1.
base::SecretText encodeLinkRecord(const LinkRecord& record);
/// Throws PhoneError for a text that is damaged, or that a later version wrote. Phones are never forgotten silently: a
/// fresh identity would look to them like another computer.
LinkRecord decodeLinkRecord(std::string_view text);

/// First 16 hexadecimal digits of the SHA-256 of a public key: what people and the announcement call its owner by.
std::string shortId(const PublicKey& key);

}  // namespace sorvane::phone
