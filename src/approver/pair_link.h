#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "approver/envelope.h"
#include "base/error.h"
#include "base/secret_text.h"

namespace sorvane::approver {

/// Place is where a computer listens: a name or an address without brackets, and a port.
struct Place {
  std::string host;
  std::uint16_t port = 0;
  bool operator==(const Place&) const = default;
};

/// PlaceError is a text that names no place, or no pairing. The sentence is shown as it stands.
class PlaceError : public base::Error {
 public:
  using Error::Error;
};

/// "HOST:PORT" as a person types it; an address with colons stands in brackets. Throws PlaceError.
Place readPlace(std::string_view text);
/// The same text back.
std::string textOf(const Place& place);

/// PairLink is what the code on the computer's screen says (docs/phone-link.md, Pairing).
struct PairLink {
  PublicKey computer{};
  std::vector<Place> places;  ///< at least one
  base::SecretText code;      ///< 16 characters, upper case, no dashes
};

inline constexpr std::size_t kMostLinkBytes = 2048, kMostPlaces = 16;

/// Reads the text of a pairing link, white space around it left out. A code in lower case or without dashes is the same
/// code; a key or a place that is not whole makes the link unreadable. Throws PlaceError.
PairLink readPairLink(std::string_view text);

}  // namespace sorvane::approver
