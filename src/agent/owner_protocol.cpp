#include "agent/owner_protocol.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "agent/protocol_fields.h"
#include "base/json_writer.h"

namespace sorvane::agent {
namespace {

using base::Json;
using base::JsonWriter;
using Kind = LockOutcome::Kind;

enum Field : unsigned {
  passphrase = 1,
  newPassphrase = 2,
  confirmation = 4,
  requirement = 8,
  follows = 16,
  method = 32,
  hold = 64,
  answersItself = 128,
  file = 256,
  sha256 = 512,
  recoveryKey = 1024,
  protectKeys = 2048
};
constexpr std::array<std::pair<std::string_view, Field>, 12> kFields{{{"passphrase", passphrase},
                                                                      {"newPassphrase", newPassphrase},
                                                                      {"confirmation", confirmation},
                                                                      {"requirement", requirement},
                                                                      {"follows", follows},
                                                                      {"method", method},
                                                                      {"hold", hold},
                                                                      {"answersItself", answersItself},
                                                                      {"file", file},
                                                                      {"sha256", sha256},
                                                                      {"recoveryKey", recoveryKey},
                                                                      {"protectKeys", protectKeys}}};

/// What a request must hold and may hold beside its operation, in the order of OwnerOp.
struct Shape {
  std::string_view word;
  unsigned must, may;
};
constexpr std::array<Shape, kOwnerOpCount> kShapes{
    {{"status", 0, 0},
     {"unlock", 0, passphrase | method | answersItself},
     {"lock", 0, hold},
     {"setPassphrase", newPassphrase | confirmation | requirement, answersItself},
     {"changePassphrase", passphrase | newPassphrase | confirmation, answersItself},
     {"removePassphrase", 0, passphrase | answersItself},
     {"require", requirement, passphrase | answersItself},
     {"followSession", follows, passphrase | answersItself},
     {"reset", 0, answersItself},
     {"backupPreview", file, passphrase | recoveryKey},
     {"backupRestore", file | sha256, passphrase | recoveryKey | protectKeys | answersItself}}};

using CountOfBackup = std::int64_t OpenedBackupCounts::*;
constexpr std::array<std::pair<const char*, CountOfBackup>, 6> kCounts{
    {{"secrets", &OpenedBackupCounts::secrets},
     {"environments", &OpenedBackupCounts::environments},
     {"versions", &OpenedBackupCounts::versions},
     {"values", &OpenedBackupCounts::values},
     {"events", &OpenedBackupCounts::events},
     {"providerKeys", &OpenedBackupCounts::providerKeys}}};

constexpr std::array<std::string_view, 3> kKinds{"done", "needsPassphrase", "refused"};

template <std::size_t count>
bool isOneOf(const std::array<std::string_view, count>& words, std::string_view word) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

OwnerOp opOf(std::string_view text) {
  for (std::size_t i = 0; i < kShapes.size(); ++i) {
    if (kShapes[i].word == text) return static_cast<OwnerOp>(i);
  }
  throw WrongShape{};
}

/// Throws WrongShape unless the request holds what its operation needs and nothing that it does not take.
void checkShape(const Json& json, const Fields& fields, const Shape& shape) {
  for (const auto& [name, value] : json.items()) {
    if (name == "op") continue;
    const auto known = std::find_if(kFields.begin(), kFields.end(),
                                    [&wanted = name](const auto& field) { return field.first == wanted; });
    if (known == kFields.end() || ((shape.must | shape.may) & known->second) == 0) throw WrongShape{};
  }
  for (const auto& [name, field] : kFields) {
    if ((shape.must & field) != 0) fields.need(name.data());
  }
}

/// A passphrase as it was typed: no terminal gives a NUL byte.
std::optional<base::SecretText> typedText(const Fields& fields, const char* name) {
  const Json* const value = fields.find(name);
  return value == nullptr ? std::nullopt : std::optional(base::SecretText(plainText(*value)));
}

OwnerRequest requestOf(const Json& json) {
  const Fields fields(json);
  OwnerRequest request;
  request.op = opOf(plainText(fields.need("op")));
  checkShape(json, fields, kShapes[static_cast<std::size_t>(request.op)]);
  request.passphrase = typedText(fields, "passphrase");
  request.newPassphrase = typedText(fields, "newPassphrase");
  request.confirmation = typedText(fields, "confirmation");
  request.requirement = fields.text("requirement");
  if (request.requirement) {
    constexpr std::array<std::string_view, 3> known{"withSystem", "only", "off"};
    // A passphrase that is set is asked for.
    const bool offIsNone = request.op == OwnerOp::setPassphrase && *request.requirement == "off";
    if (offIsNone || !isOneOf(known, *request.requirement)) throw WrongShape{};
  }
  if (fields.find("follows") != nullptr) request.follows = fields.boolean("follows");
  request.file = fields.text("file");
  if (request.file && !request.file->starts_with('/')) throw WrongShape{};
  request.sha256 = fields.text("sha256");
  request.recoveryKey = typedText(fields, "recoveryKey");
  request.protectKeys = fields.find("protectKeys") != nullptr && fields.boolean("protectKeys");
  if (fields.find("hold") != nullptr) {
    request.lock = fields.boolean("hold") ? OwnerLock::Lock::held : OwnerLock::Lock::untilNextTime;
  }
  request.answersItself = fields.find("answersItself") != nullptr && fields.boolean("answersItself");
  if (const auto text = fields.text("method")) {
    if (*text != "first" && *text != "password") throw WrongShape{};
    request.method = *text == "first" ? OwnerLock::Method::first : OwnerLock::Method::password;
  }
  return request;
}

LockReport reportOf(const Json& json) {
  const Fields fields(json);
  LockReport report;
  report.isUnlocked = fields.boolean("isUnlocked");
  report.prompt = plainText(fields.need("prompt"));
  report.sentence = plainText(fields.need("sentence"));
  report.requirement = plainText(fields.need("requirement"));
  report.hasPassphrase = fields.boolean("hasPassphrase");
  report.followsSession = fields.boolean("followsSession");
  report.sessionIsReported = fields.boolean("sessionIsReported");
  report.isManaged = fields.boolean("isManaged");
  report.heldLocked = fields.boolean("heldLocked");
  report.isAsking = fields.boolean("isAsking");
  report.waitSeconds = fields.needInteger("waitSeconds");
  report.store = plainText(fields.need("store"));
  report.storeIsSealed = fields.boolean("storeIsSealed");
  report.systemCheckUnavailable = fields.text("systemCheckUnavailable");
  if (const Json* const restoring = fields.find("restoring")) {
    const Fields progress(*restoring);
    report.restoring = {progress.needInteger("done"), progress.needInteger("total")};
  }
  report.phoneUnlocks = fields.boolean("phoneUnlocks");
  report.notices = fields.list("notices").value_or(std::vector<std::string>{});
  report.version = plainText(fields.need("version"));
  report.supportFolder = plainText(fields.need("supportFolder"));
  return report;
}

BackupCounts countsOf(const Json& json) {
  const Fields fields(json);
  BackupCounts counts;
  counts.sha256 = plainText(fields.need("sha256"));
  counts.bytes = fields.needInteger("bytes");
  counts.isEncrypted = fields.boolean("encrypted");
  counts.hasPassphrase = fields.boolean("hasPassphrase");
  counts.hasRecoveryKey = fields.boolean("hasRecoveryKey");
  const auto exportedAt = fields.text("exportedAt");
  if (!exportedAt) return counts;
  OpenedBackupCounts& opened = counts.opened.emplace();
  opened.exportedAt = *exportedAt;
  for (const auto& [name, count] : kCounts) opened.*count = fields.needInteger(name);
  return counts;
}

OwnerAnswer answerOf(const Json& json) {
  const Fields fields(json);
  OwnerAnswer answer;
  const std::string& kind = plainText(fields.need("outcome"));
  if (!isOneOf(kKinds, kind)) throw WrongShape{};
  answer.outcome.kind = static_cast<Kind>(std::find(kKinds.begin(), kKinds.end(), kind) - kKinds.begin());
  answer.outcome.code = fields.text("code").value_or("");
  answer.outcome.sentence = fields.text("sentence").value_or("");
  if (const Json* const status = fields.find("status")) answer.status = reportOf(*status);
  if (const Json* const backup = fields.find("backup")) answer.backup = countsOf(*backup);
  return answer;
}

void optionalText(JsonWriter& out, std::string_view name, const std::optional<base::SecretText>& text) {
  if (text) out.field(name, text->view());
}

void encode(JsonWriter& out, const LockReport& report) {
  out.beginObject().key("isUnlocked").boolean(report.isUnlocked);
  out.field("prompt", std::string_view(report.prompt)).field("sentence", std::string_view(report.sentence));
  out.field("requirement", std::string_view(report.requirement));
  out.key("hasPassphrase").boolean(report.hasPassphrase).key("followsSession").boolean(report.followsSession);
  out.key("sessionIsReported").boolean(report.sessionIsReported);
  out.key("isManaged").boolean(report.isManaged).key("heldLocked").boolean(report.heldLocked);
  out.key("isAsking").boolean(report.isAsking).key("waitSeconds").integer(report.waitSeconds);
  out.field("store", std::string_view(report.store)).key("storeIsSealed").boolean(report.storeIsSealed);
  if (report.restoring) {
    out.key("restoring").beginObject().key("done").integer(report.restoring->done);
    out.key("total").integer(report.restoring->total).endObject();
  }
  out.field("systemCheckUnavailable", report.systemCheckUnavailable);
  out.key("phoneUnlocks").boolean(report.phoneUnlocks).strings("notices", report.notices);
  out.field("version", std::string_view(report.version));
  out.field("supportFolder", std::string_view(report.supportFolder)).endObject();
}

void encode(JsonWriter& out, const BackupCounts& counts) {
  out.beginObject().field("sha256", std::string_view(counts.sha256)).key("bytes").integer(counts.bytes);
  out.key("encrypted").boolean(counts.isEncrypted).key("hasPassphrase").boolean(counts.hasPassphrase);
  out.key("hasRecoveryKey").boolean(counts.hasRecoveryKey);
  if (counts.opened) {
    out.field("exportedAt", std::string_view(counts.opened->exportedAt));
    for (const auto& [name, count] : kCounts) out.key(name).integer(*counts.opened.*count);
  }
  out.endObject();
}

}  // namespace

std::string_view word(OwnerOp op) {
  return kShapes[static_cast<std::size_t>(op)].word;
}

OwnerAnswer OwnerAnswer::refused(std::string code, std::string sentence) {
  return {{LockOutcome::Kind::refused, std::move(code), std::move(sentence)}, {}, {}};
}

base::SecretText encodeOwnerRequest(const OwnerRequest& request) {
  JsonWriter out;
  out.beginObject().field("op", word(request.op));
  optionalText(out, "passphrase", request.passphrase);
  optionalText(out, "newPassphrase", request.newPassphrase);
  optionalText(out, "confirmation", request.confirmation);
  out.field("requirement", request.requirement);
  if (request.follows) out.key("follows").boolean(*request.follows);
  if (request.method) out.field("method", *request.method == OwnerLock::Method::first ? "first" : "password");
  optionalText(out, "recoveryKey", request.recoveryKey);
  out.field("file", request.file).field("sha256", request.sha256);
  if (request.protectKeys) out.key("protectKeys").boolean(true);
  if (request.answersItself) out.key("answersItself").boolean(true);
  if (request.lock) out.key("hold").boolean(*request.lock == OwnerLock::Lock::held);
  out.endObject();
  return out.take();
}

std::optional<OwnerRequest> decodeOwnerRequest(std::string_view text) {
  return decodeMessage<OwnerRequest>(text, requestOf);
}

base::SecretText encodeOwnerAnswer(const OwnerAnswer& answer) {
  JsonWriter out;
  out.beginObject().field("outcome", kKinds[static_cast<std::size_t>(answer.outcome.kind)]);
  if (!answer.outcome.code.empty()) out.field("code", std::string_view(answer.outcome.code));
  if (!answer.outcome.sentence.empty()) out.field("sentence", std::string_view(answer.outcome.sentence));
  if (answer.status) encode(out.key("status"), *answer.status);
  if (answer.backup) encode(out.key("backup"), *answer.backup);
  out.endObject();
  return out.take();
}

std::optional<OwnerAnswer> decodeOwnerAnswer(std::string_view text) {
  return decodeMessage<OwnerAnswer>(text, answerOf);
}

}  // namespace sorvane::agent
