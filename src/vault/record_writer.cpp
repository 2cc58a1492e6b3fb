#include "base/date.h"
#include "base/unicode.h"
#include "vault/record_codec.h"

namespace sorvane::vault {
namespace {

using base::JsonWriter;
using base::SecretText;

constexpr std::string_view kPolicyFormat = "deployment-policy-v1";
// Rough sizes of a written record, to reserve the text in one piece.
constexpr std::size_t kSecretBytes = 360;
constexpr std::size_t kVersionBytes = 240;
constexpr std::size_t kProjectBytes = 280;
constexpr std::size_t kBindingBytes = 140;

void writeDate(JsonWriter& writer, std::string_view name, Date date) {
  writer.field(name, base::iso8601(date));
}

void writeDate(JsonWriter& writer, std::string_view name, const std::optional<Date>& date) {
  if (date) writeDate(writer, name, *date);
}

void writeInteger(JsonWriter& writer, std::string_view name, const std::optional<std::int64_t>& number) {
  if (number) writer.key(name).integer(*number);
}

void write(JsonWriter& writer, const SecretVersion& version) {
  writer.beginObject();
  if (version.allowedDeploymentTargets) writer.strings("allowedDeploymentTargets", *version.allowedDeploymentTargets);
  writeDate(writer, "createdAt", version.createdAt);
  writeDate(writer, "expiresAt", version.expiresAt);
  writer.field("label", version.label);
  writeDate(writer, "retiredAt", version.retiredAt);
  writer.field("status", word(version.status));
  writer.key("version").integer(version.version);
  writer.endObject();
}

void write(JsonWriter& writer, const EnvBinding& binding) {
  writer.beginObject();
  if (binding.allowsRunControl) writer.key("allowsRunControl").boolean(*binding.allowsRunControl);
  writer.field("envVarName", binding.envVarName);
  writeInteger(writer, "pinVersion", binding.pinVersion);
  writer.field("secretId", binding.secretId);
  writer.endObject();
}

bool limitsTargets(const std::vector<Secret>& secrets) {
  for (const Secret& secret : secrets) {
    for (const SecretVersion& version : secret.versions) {
      if (version.allowedDeploymentTargets) return true;
    }
  }
  return false;
}

template <typename Record>
void writeList(JsonWriter& writer, const std::vector<Record>& records) {
  writer.beginArray();
  for (const Record& record : records) write(writer, record);
  writer.endArray();
}

AccessEvent repaired(AccessEvent event) {
  const auto repair = [](std::string& text) {
    if (!base::isUtf8(text)) text = base::repairedUtf8(text);
  };
  for (std::string* const text : {&event.id, &event.actor, &event.tool, &event.source}) repair(*text);
  for (auto* const text : {&event.secretId, &event.projectId, &event.requestor, &event.cloudWorkspace}) {
    if (*text) repair(**text);
  }
  return event;
}

}  // namespace

void write(JsonWriter& writer, const Secret& secret) {
  writer.beginObject();
  writeDate(writer, "createdAt", secret.createdAt);
  writer.key("currentVersion").integer(secret.currentVersion);
  writer.field("description", secret.description);
  writer.field("icon", secret.icon);
  writer.field("id", secret.id);
  writer.key("isFavorite").boolean(secret.isFavorite);
  writer.field("name", secret.name);
  writer.strings("tags", secret.tags);
  writeDate(writer, "updatedAt", secret.updatedAt);
  writer.key("versions");
  writeList(writer, secret.versions);
  writer.endObject();
}

void write(JsonWriter& writer, const Project& project) {
  writer.beginObject();
  writer.key("bindings");
  writeList(writer, project.bindings);
  writeDate(writer, "createdAt", project.createdAt);
  writer.field("deploymentTarget", project.deploymentTarget);
  writer.field("description", project.description);
  writer.field("id", project.id);
  writer.field("name", project.name);
  writer.field("rootPath", project.rootPath);
  writeDate(writer, "updatedAt", project.updatedAt);
  writer.endObject();
}

void write(JsonWriter& writer, const AccessEvent& event) {
  writer.beginObject();
  writer.field("actor", event.actor);
  writeDate(writer, "at", event.at);
  writer.field("cloudWorkspace", event.cloudWorkspace);
  writer.field("id", event.id);
  writer.field("projectId", event.projectId);
  writer.field("requestor", event.requestor);
  writer.field("secretId", event.secretId);
  writer.field("source", event.source);
  writer.field("tool", event.tool);
  writeInteger(writer, "version", event.version);
  writer.endObject();
}

SecretText encodeSecrets(const std::vector<Secret>& secrets) {
  std::size_t bytes = 128;
  for (const Secret& secret : secrets) bytes += kSecretBytes + secret.versions.size() * kVersionBytes;
  JsonWriter writer(JsonWriter::Style::pretty);
  writer.reserve(bytes);
  if (!limitsTargets(secrets)) {
    writeList(writer, secrets);
    return writer.take();
  }
  writer.beginObject();
  writer.field("format", kPolicyFormat);
  writer.key("items");
  writeList(writer, secrets);
  writer.endObject();
  return writer.take();
}

SecretText encodeProjects(const std::vector<Project>& projects) {
  std::size_t bytes = 128;
  for (const Project& project : projects) bytes += kProjectBytes + project.bindings.size() * kBindingBytes;
  JsonWriter writer(JsonWriter::Style::pretty);
  writer.reserve(bytes);
  writeList(writer, projects);
  return writer.take();
}

void appendEventLine(SecretText& out, const AccessEvent& event) {
  JsonWriter writer(JsonWriter::Style::compact);
  write(writer, repaired(event));
  out.append(writer.view());
  out.push_back('\n');
}

}  // namespace sorvane::vault
