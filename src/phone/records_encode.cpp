#include "base/json_writer.h"
#include "phone/fields.h"
#include "phone/records.h"

namespace sorvane::phone {
namespace {

using base::JsonWriter;

/// Writer of one record's object, which ends with `take`.
class RecordWriter {
 public:
  RecordWriter() { out_.beginObject(); }
  RecordWriter& bytes(std::string_view name, std::span<const std::uint8_t> value) {
    out_.key(name).base64(value);
    return *this;
  }
  RecordWriter& bytes(std::string_view name, const std::optional<base::Bytes>& value) {
    return value ? bytes(name, std::span<const std::uint8_t>(*value)) : *this;
  }
  template <typename Text>
  RecordWriter& text(std::string_view name, const Text& value) {
    out_.field(name, value);
    return *this;
  }
  RecordWriter& boolean(std::string_view name, bool value) {
    out_.key(name).boolean(value);
    return *this;
  }
  RecordWriter& date(std::string_view name, base::Date value) {
    out_.key(name).integer(wireSeconds(value));
    return *this;
  }
  RecordWriter& texts(std::string_view name, const std::optional<std::vector<std::string>>& list) {
    if (list) out_.strings(name, *list);
    return *this;
  }
  RecordWriter& details(const ApprovalDetails& details);
  RecordWriter& textsByName(std::string_view name, const std::map<std::string, std::string>& texts) {
    out_.key(name).beginObject();
    for (const auto& [key, value] : texts) out_.field(key, value);
    out_.endObject();
    return *this;
  }
  base::SecretText take() { return out_.endObject().take(); }

 private:
  JsonWriter out_;
};

RecordWriter& RecordWriter::details(const ApprovalDetails& details) {
  out_.key("details").beginObject();
  text("kind", nameOf(details.kind)).text("reason", details.reason).text("requestor", details.requestor);
  text("subject", details.subject);
  if (details.version) out_.key("version").integer(*details.version);
  texts("allowedTargets", details.allowedTargets).text("declaredTarget", details.declaredTarget);
  out_.endObject();
  return *this;
}

}  // namespace

base::SecretText encodeRecord(const PairConfirm& record) {
  return RecordWriter()
      .bytes("phonePublicKey", record.phonePublicKey)
      .bytes("presenceKey", record.presenceKey)
      .boolean("hardwarePresenceKey", record.hardwarePresenceKey)
      .text("deviceName", record.deviceName)
      .text("proof", record.proof)
      .take();
}

base::SecretText encodeRecord(const HelloProof& record) {
  return RecordWriter()
      .bytes("challenge", record.challenge)
      .bytes("phonePublicKey", record.phonePublicKey)
      .bytes("phoneChallenge", record.phoneChallenge)
      .texts("features", record.features)
      .take();
}

base::SecretText encodeRecord(const MacProof& record) {
  return RecordWriter()
      .bytes("phoneChallenge", record.phoneChallenge)
      .bytes("challenge", record.challenge)
      .bytes("macPublicKey", record.macPublicKey)
      .take();
}

base::SecretText encodeRecord(const ApprovalRequest& record) {
  return RecordWriter()
      .text("id", record.id)
      .bytes("nonce", record.nonce)
      .details(record.details)
      .text("macName", record.macName)
      .date("issuedAt", record.issuedAt)
      .date("expiresAt", record.expiresAt)
      .take();
}

base::SecretText encodeRecord(const ApprovalResponse& record) {
  return RecordWriter()
      .text("id", record.id)
      .bytes("nonce", record.nonce)
      .bytes("digest", record.digest)
      .boolean("approved", record.approved)
      .bytes("presenceSignature", record.presenceSignature)
      .take();
}

base::SecretText encodeRecord(const ApprovalCancel& record) {
  return RecordWriter().text("id", record.id).take();
}

base::SecretText encodeRecord(const KeyApprovalAsk& record) {
  return RecordWriter()
      .text("id", record.id)
      .bytes("nonce", record.nonce)
      .textsByName("fields", record.fields)
      .text("workspaceName", record.workspaceName)
      .text("connectionName", record.connectionName)
      .text("macName", record.macName)
      .date("expiresAt", record.expiresAt)
      .text("sessionId", record.sessionId)
      .take();
}

base::SecretText encodeRecord(const KeyApprovalAnswer& record) {
  return RecordWriter()
      .text("id", record.id)
      .bytes("nonce", record.nonce)
      .bytes("digest", record.digest)
      .boolean("approved", record.approved)
      .bytes("signature", record.signature)
      .take();
}

base::SecretText encodeRecord(const ApproverRegisterAsk& record) {
  return RecordWriter()
      .text("id", record.id)
      .bytes("nonce", record.nonce)
      .text("workspaceId", record.workspaceId)
      .text("workspaceName", record.workspaceName)
      .text("userId", record.userId)
      .text("label", record.label)
      .text("macName", record.macName)
      .date("expiresAt", record.expiresAt)
      .take();
}

base::SecretText encodeRecord(const ApproverRegisterAnswer& record) {
  return RecordWriter()
      .text("id", record.id)
      .bytes("nonce", record.nonce)
      .boolean("accepted", record.accepted)
      .text("publicKey", record.publicKey)
      .bytes("signature", record.signature)
      .take();
}

base::SecretText encodeRecord(const UnpairNotice& record) {
  return RecordWriter().bytes("phonePublicKey", record.phonePublicKey).take();
}

}  // namespace sorvane::phone
