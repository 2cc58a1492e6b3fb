#include "approver/envelope.h"

#include <algorithm>

#include "approver/fields.h"
#include "base/json_writer.h"
#include "base/unicode.h"

namespace sorvane::approver {
namespace {

constexpr std::int64_t kVersion = 4;
constexpr std::size_t kMostNameCharacters = 64;

// What an envelope may hold besides `v` and `kind`.
enum Carries : unsigned { kPairRequest = 1, kPeerKey = 2, kChallenge = 4, kSealed = 8, kOk = 16, kName = 32 };
struct Key {
  const char* name;
  Carries bit;
};
constexpr std::array kKeys{Key{"pairRequest", kPairRequest},
                           Key{"peerPublicKey", kPeerKey},
                           Key{"challenge", kChallenge},
                           Key{"sealed", kSealed},
                           Key{"ok", kOk},
                           Key{"macName", kName}};

struct Row {
  std::string_view name;
  FromComputer kind;
  unsigned carries;
};
// An acknowledgement carries its proof with a yes only, which is looked at below.
constexpr std::array kRows{
    Row{"challenge", FromComputer::challenge, kPeerKey | kChallenge | kName},
    Row{"paired", FromComputer::paired, kOk | kSealed},
    Row{"helloAck", FromComputer::helloAck, kOk | kSealed},
    Row{"approvalRequest", FromComputer::approvalRequest, kSealed},
    Row{"cancel", FromComputer::cancel, kSealed},
    Row{"unpair", FromComputer::unpair, kSealed},
    Row{"keyApproval", FromComputer::keyApproval, kSealed},
    Row{"approverRegister", FromComputer::approverRegister, kSealed},
};

void require(bool holds) {
  if (!holds) throw LinkError(LinkError::Case::unreadable);
}

std::string_view nameOf(FromPhone kind) {
  switch (kind) {
    case FromPhone::pair:
      return "pair";
    case FromPhone::hello:
      return "hello";
    case FromPhone::approvalResponse:
      return "approvalResponse";
    case FromPhone::unpair:
      return "unpair";
    case FromPhone::keyApprovalAnswer:
      return "keyApprovalAnswer";
    case FromPhone::approverRegisterAnswer:
      return "approverRegisterAnswer";
  }
  return "";
}

base::JsonWriter begin(FromPhone kind) {
  base::JsonWriter writer;
  writer.beginObject().key("v").integer(kVersion).field("kind", nameOf(kind));
  return writer;
}

std::string end(base::JsonWriter& writer) {
  writer.endObject();
  return std::string(writer.view());
}

}  // namespace

Envelope readEnvelope(std::string_view body) {
  const Fields fields = Fields::of(body);
  require(fields.optionalInteger("v") == kVersion);
  const std::string name = fields.text("kind");
  const auto row = std::find_if(kRows.begin(), kRows.end(), [&name](const Row& each) { return each.name == name; });
  require(row != kRows.end());

  Envelope envelope{.kind = row->kind, .peerPublicKey = {}, .challenge = {}, .sealed = {}, .ok = {}, .macName = {}};
  unsigned carries = row->carries;
  if ((carries & kOk) != 0) {
    envelope.ok = fields.boolean("ok");
    if (!*envelope.ok) carries = kOk;
  }
  for (const Key& key : kKeys) require(fields.has(key.name) == ((carries & key.bit) != 0));
  if ((carries & kPeerKey) != 0) envelope.peerPublicKey = fields.bytesOfSize<32>("peerPublicKey");
  if ((carries & kChallenge) != 0) envelope.challenge = fields.bytesOfSize<32>("challenge");
  if ((carries & kSealed) != 0) envelope.sealed = fields.bytes("sealed");
  if ((carries & kName) != 0) {
    envelope.macName = fields.text("macName");
    require(!envelope.macName->empty() && base::characterCount(*envelope.macName) <= kMostNameCharacters);
  }
  return envelope;
}

std::string helloEnvelope(const PublicKey& phone, const base::Bytes& sealedProof) {
  base::JsonWriter writer = begin(FromPhone::hello);
  writer.key("peerPublicKey").base64(phone).key("sealed").base64(sealedProof);
  return end(writer);
}

std::string pairEnvelope(const PublicKey& phone, const base::Bytes& sealedConfirm) {
  base::JsonWriter writer = begin(FromPhone::pair);
  writer.key("pairRequest").beginObject().key("phonePublicKey").base64(phone);
  writer.key("sealedConfirm").base64(sealedConfirm).endObject();
  return end(writer);
}

std::string sealedEnvelope(FromPhone kind, const base::Bytes& sealed) {
  base::JsonWriter writer = begin(kind);
  writer.key("sealed").base64(sealed);
  return end(writer);
}

}  // namespace sorvane::approver
