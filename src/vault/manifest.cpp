#include "vault/manifest.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "base/date.h"
#include "base/ids.h"
#include "base/json.h"
#include "base/json_writer.h"
#include "vault/accounts.h"

namespace sorvane::vault {
namespace {

constexpr std::size_t kMaxGenerationName = 64;
constexpr std::string_view kRestoredMark = "restored-";

/// False when the field is there but is no list of text.
bool readStrings(const base::Json& json, std::string_view name, std::optional<std::vector<std::string>>& out) {
  const auto found = json.find(name);
  if (found == json.end() || found->is_null()) return true;
  if (!found->is_array()) return false;
  out.emplace();
  for (const base::Json& item : *found) {
    if (!item.is_string()) return false;
    out->push_back(item.get<std::string>());
  }
  return true;
}

}  // namespace

base::SecretText encodeManifest(const Manifest& manifest) {
  base::JsonWriter writer(base::JsonWriter::Style::pretty);
  writer.beginObject();
  if (manifest.cancelledMigrations) writer.strings("cancelledMigrations", *manifest.cancelledMigrations);
  writer.field("current", manifest.current);
  writer.field("previous", manifest.previous);
  writer.key("version").integer(manifest.version);
  writer.endObject();
  return writer.take();
}

DecodeOutcome<Manifest> decodeManifest(std::string_view text) {
  const auto json = base::parseJson(text);
  if (!json || !json->is_object()) return DecodeFailure::damaged;
  const auto version = json->find("version");
  if (version == json->end() || !version->is_number_integer()) return DecodeFailure::damaged;
  if (version->is_number_unsigned() && version->get<std::uint64_t>() > static_cast<std::uint64_t>(kManifestVersion)) {
    return DecodeFailure::newerFormat;
  }
  if (version->get<std::int64_t>() < 1) return DecodeFailure::damaged;
  Manifest manifest;
  const auto current = json->find("current");
  if (current == json->end() || !current->is_string()) return DecodeFailure::damaged;
  manifest.current = current->get<std::string>();
  if (const auto previous = json->find("previous"); previous != json->end() && !previous->is_null()) {
    if (!previous->is_string()) return DecodeFailure::damaged;
    manifest.previous = previous->get<std::string>();
  }
  if (!readStrings(*json, "cancelledMigrations", manifest.cancelledMigrations)) return DecodeFailure::damaged;
  const bool safe = isGenerationName(manifest.current) && (!manifest.previous || isGenerationName(*manifest.previous));
  if (!safe) return DecodeFailure::damaged;
  return manifest;
}

bool isGenerationName(std::string_view name) {
  return !name.empty() && name.size() <= kMaxGenerationName && std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
  });
}

std::string newGenerationName(base::Date now) {
  return base::compactStamp(now) + "-" + base::randomHex(8);
}

std::string newRestoredGenerationName(base::Date now) {
  return std::string(kRestoredMark) + newGenerationName(now);
}

bool isRestoredGeneration(std::string_view name) {
  return name.starts_with(kRestoredMark);
}

std::string valueAccount(std::string_view generation, std::string_view secretId, std::int64_t version) {
  std::string account = accountOf(secretId, version);
  return isRestoredGeneration(generation) ? namespacedAccount(generation, account) : account;
}

}  // namespace sorvane::vault
