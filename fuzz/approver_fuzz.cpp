// The second device, under bytes that anyone on the network or on a screen can make: what is read of a pairing link
// comes back the same, a link ends before it says anything to a computer that proved nothing, and no request moves the
// cursor of the terminal that it is shown on.
#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "approver/link.h"
#include "approver/pair_link.h"

namespace {

using namespace sorvane;
using namespace sorvane::approver;

void readLinkText(std::string_view text) try {
  const PairLink link = readPairLink(text);
  if (link.code.size() != 16 || link.places.empty() || link.places.size() > kMostPlaces) std::abort();
  for (const Place& place : link.places)
    if (readPlace(textOf(place)) != place) std::abort();
} catch (const PlaceError&) {
}

void receiveBytes(std::span<const std::uint8_t> bytes) try {
  static const DeviceKeys device{crypto::AgreementKey::random(), crypto::PresenceKey::random()};
  static const base::SystemClock clock;
  SeenRequests seen;
  Link link({device, PublicKey{9}}, std::nullopt, seen, clock);
  for (const Link::Event& event : link.receive(bytes))
    if (!std::holds_alternative<Link::Refused>(event)) std::abort();
  if (link.isOpen() || link.takeOutput().size() > kMostBodyBytes) std::abort();
} catch (const LinkError&) {
}

void show(const Question& question) {
  const std::string text = shownText(question, 80);
  if (std::any_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 && c != '\n'; }))
    std::abort();
}

template <typename Read>
void readRecord(const Read& read, std::string_view text) try {
  show(questionOf(read(text)));
} catch (const LinkError&) {
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::span<const std::uint8_t> rest(data + 1, size - 1);
  const std::string_view text = base::textOf(rest);
  switch (data[0] % 5) {
    case 0:
      readLinkText(text);
      break;
    case 1:
      receiveBytes(rest);
      break;
    case 2:
      readRecord(readApprovalRequest, text);
      break;
    case 3:
      readRecord(readKeyApprovalAsk, text);
      break;
    default:
      readRecord(readApproverRegisterAsk, text);
  }
  return 0;
}
