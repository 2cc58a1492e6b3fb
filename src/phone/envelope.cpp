#include "phone/envelope.h"

#include <algorithm>

#include "phone/fields.h"

namespace sorvane::phone {
namespace {

// The keys of an envelope besides `v` and `kind`.
enum Key : unsigned {
  kPairRequest = 1U << 0,
  kPeerPublicKey = 1U << 1,
  kChallenge = 1U << 2,
  kSealed = 1U << 3,
  kOk = 1U << 4,
  kMacName = 1U << 5,
};

enum From : unsigned { kMac = 1U << 0, kPhone = 1U << 1 };

struct KindRow {
  Kind kind;
  std::string_view name;
  unsigned from;
  /// What it carries, all of it: kOk alone when that is false.
  unsigned carries;
};

// Every kind, who sends it and what it carries. There is no other check.
constexpr KindRow kKinds[] = {
    {Kind::challenge, "challenge", kMac, kPeerPublicKey | kChallenge | kMacName},
    {Kind::pair, "pair", kPhone, kPairRequest},
    {Kind::paired, "paired", kMac, kOk | kSealed},
    {Kind::hello, "hello", kPhone, kPeerPublicKey | kSealed},
    {Kind::helloAck, "helloAck", kMac, kOk | kSealed},
    {Kind::approvalRequest, "approvalRequest", kMac, kSealed},
    {Kind::approvalResponse, "approvalResponse", kPhone, kSealed},
    {Kind::cancel, "cancel", kMac, kSealed},
    {Kind::unpair, "unpair", kMac | kPhone, kSealed},
    {Kind::keyApproval, "keyApproval", kMac, kSealed},
    {Kind::keyApprovalAnswer, "keyApprovalAnswer", kPhone, kSealed},
    {Kind::approverRegister, "approverRegister", kMac, kSealed},
    {Kind::approverRegisterAnswer, "approverRegisterAnswer", kPhone, kSealed},
};

const KindRow* rowOf(Kind kind) {
  const auto* const row =
      std::find_if(std::begin(kKinds), std::end(kKinds), [kind](const KindRow& each) { return each.kind == kind; });
  return row == std::end(kKinds) ? nullptr : row;
}

const KindRow& rowOf(std::string_view name) {
  const auto* const row =
      std::find_if(std::begin(kKinds), std::end(kKinds), [name](const KindRow& each) { return each.name == name; });
  if (row == std::end(kKinds)) throw WrongShape{};
  return *row;
}

PairRequest pairRequestOf(const Fields& in) {
  return PairRequest{in.bytesOf<32>("phonePublicKey"), in.bytes("sealedConfirm")};
}

unsigned keysOf(const Envelope& envelope) {
  return (envelope.pairRequest ? kPairRequest : 0U) | (envelope.peerPublicKey ? kPeerPublicKey : 0U) |
         (envelope.challenge ? kChallenge : 0U) | (envelope.sealed ? kSealed : 0U) | (envelope.ok ? kOk : 0U) |
         (envelope.macName ? kMacName : 0U);
}

}  // namespace

std::string_view nameOf(Kind kind) {
  const KindRow* const row = rowOf(kind);
  return row ? row->name : std::string_view{};
}

bool isWellFormed(const Envelope& envelope, Side from) {
  const KindRow* const row = rowOf(envelope.kind);
  if (!row || envelope.v != kProtocolVersion || !(row->from & (from == Side::mac ? kMac : kPhone))) return false;
  const unsigned expected = envelope.ok == false ? row->carries & kOk : row->carries;
  return keysOf(envelope) == expected;
}

std::optional<Envelope> decodeEnvelope(std::string_view json, Side from) {
  auto envelope = decodedWith<Envelope>(json, [](const Fields& in) {
    Envelope out;
    out.v = in.integer("v");
    out.kind = rowOf(in.text("kind")).kind;
    if (in.has("pairRequest")) out.pairRequest = pairRequestOf(in.object("pairRequest"));
    if (in.has("peerPublicKey")) out.peerPublicKey = in.bytesOf<32>("peerPublicKey");
    if (in.has("challenge")) out.challenge = in.bytesOf<32>("challenge");
    out.sealed = in.optionalBytes("sealed");
    if (in.has("ok")) out.ok = in.boolean("ok");
    out.macName = in.optionalText("macName");
    return out;
  });
  if (envelope && !isWellFormed(*envelope, from)) envelope.reset();
  return envelope;
}

std::string encodeEnvelope(const Envelope& envelope) {
  base::JsonWriter out;
  out.beginObject().key("v").integer(envelope.v).field("kind", nameOf(envelope.kind));
  if (const auto& request = envelope.pairRequest) {
    out.key("pairRequest").beginObject().key("phonePublicKey").base64(request->phonePublicKey);
    out.key("sealedConfirm").base64(request->sealedConfirm).endObject();
  }
  if (envelope.peerPublicKey) out.key("peerPublicKey").base64(*envelope.peerPublicKey);
  if (envelope.challenge) out.key("challenge").base64(*envelope.challenge);
  if (envelope.sealed) out.key("sealed").base64(*envelope.sealed);
  if (envelope.ok) out.key("ok").boolean(*envelope.ok);
  out.field("macName", envelope.macName).endObject();
  return std::string(out.view());
}

}  // namespace sorvane::phone
