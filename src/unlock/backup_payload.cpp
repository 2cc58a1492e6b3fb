#include "unlock/backup_payload.h"

#include <simdjson.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <optional>
#include <variant>

#include "base/date.h"
#include "base/json_writer.h"
#include "unlock/backup_canonical_json.h"
#include "unlock/backup_error.h"
#include "unlock/backup_json.h"
#include "vault/record_codec.h"

namespace sorvane::unlock {
namespace {

using Malformed = JsonCursor::Malformed;

constexpr std::string_view kPolicyFormat = "deployment-policy-v1";
/// Records are decoded and digested in runs of about this many characters, so that the working memory stays small.
constexpr std::size_t kRunBytes = 1U << 20;

// Rough sizes of the JSON around the texts of a record, so that the payload is written in one piece.
constexpr std::size_t kPerRecord = 512;
constexpr std::size_t kPerEvent = 320;
constexpr std::size_t kPerValue = 96;

std::size_t estimateOf(const BackupPayload& payload) {
  std::size_t bytes = 4096 + payload.audit.size() * kPerEvent + (payload.cloudCache ? payload.cloudCache->size() : 0);
  for (const vault::Secret& secret : payload.secrets) bytes += kPerRecord * (1 + secret.versions.size());
  for (const vault::Project& project : payload.projects) bytes += kPerRecord * (1 + project.bindings.size());
  for (const vault::SecretValueEntry& entry : payload.values) bytes += kPerValue + entry.value.size() * 17 / 16;
  return bytes;
}

/// Sorted and without white space; throws Malformed for what is no JSON object.
base::SecretText canonicalCloudCache(std::string_view text) {
  if (text.size() > kMaxCloudCacheBytes) throw Malformed{};
  if (!isText(text) || JsonCursor(text).kind() != JsonCursor::Kind::object) throw Malformed{};
  return canonicalJson(text);
}

/// Called behind every record; may take what is written and drop it.
using Between = std::function<void(base::JsonWriter& writer)>;

template <typename Record>
void writeList(base::JsonWriter& writer, std::string_view name, const std::vector<Record>& records,
               const Between& between) {
  writer.key(name).beginArray();
  for (const Record& record : records) {
    vault::write(writer, record);
    between(writer);
  }
  writer.endArray();
}

void writeContents(base::JsonWriter& writer, const BackupPayload& payload, const Between& between) {
  writer.beginObject();
  writeList(writer, "audit", payload.audit, between);
  if (payload.cloudCache) writer.key("cloudCache").raw(canonicalCloudCache(payload.cloudCache->view()).view());
  writer.field("exportedAt", base::iso8601(payload.exportedAt));
  writeList(writer, "projects", payload.projects, between);
  writeList(writer, "secrets", payload.secrets, between);
  writer.key("values").beginArray();
  for (const vault::SecretValueEntry& entry : payload.values) {
    writer.beginObject();
    writer.field("secretId", entry.secretId);
    writer.field("value", entry.value.view());
    writer.key("version").integer(entry.version);
    writer.endObject();
    between(writer);
  }
  writer.endArray();
  writer.endObject();
}

/// The payload, under its marker where it has one.
void writePayload(base::JsonWriter& writer, const BackupPayload& payload, const Between& between) try {
  if (!limitsDeploymentTargets(payload.secrets)) return writeContents(writer, payload, between);
  writer.beginObject();
  writer.field("format", kPolicyFormat);
  writer.key("payload");
  writeContents(writer, payload, between);
  writer.endObject();
} catch (const Malformed&) {
  throw CryptoError(CryptoError::Case::sealFailed);
}

void updateEscaped(crypto::Sha256& digest, std::string_view text) {
  for (std::size_t slash; (slash = text.find('/')) != std::string_view::npos; text.remove_prefix(slash + 1)) {
    digest.update(base::bytesOf(text.substr(0, slash)));
    digest.update(base::bytesOf("\\/"));
  }
  digest.update(base::bytesOf(text));
}

/// The members of an object that are known, each seen once.
class Members {
 public:
  /// Throws when the key was seen before.
  void mark(unsigned bit) {
    if ((seen_ & bit) != 0) throw Malformed{};
    seen_ |= bit;
  }
  void require(unsigned bits) const {
    if ((seen_ & bits) != bits) throw Malformed{};
  }

 private:
  unsigned seen_ = 0;
};

/// Reads a list of records through `decode`, which takes the text of a list and throws Malformed or returns records.
template <typename Record, typename Decode>
std::vector<Record> readList(JsonCursor& cursor, const Decode& decode) {
  std::vector<Record> all;
  base::SecretText run;
  const auto finish = [&] {
    run.push_back(']');
    std::vector<Record> some = decode(run.view());
    all.insert(all.end(), std::make_move_iterator(some.begin()), std::make_move_iterator(some.end()));
    run.truncate(0);
  };
  cursor.array([&] {
    const std::string_view item = cursor.skip();
    if (item.size() > kMaxRecordBytes) throw Malformed{};
    if (!run.empty() && run.size() + item.size() > kRunBytes) finish();
    run.push_back(run.empty() ? '[' : ',');
    run.append(item);
  });
  if (!run.empty()) finish();
  return all;
}

template <typename Record>
std::vector<Record> recordsOf(vault::DecodeOutcome<std::vector<Record>>&& outcome) {
  if (std::holds_alternative<vault::DecodeFailure>(outcome)) throw Malformed{};
  return std::get<std::vector<Record>>(std::move(outcome));
}

std::vector<vault::Secret> readSecrets(JsonCursor& cursor) {
  std::size_t items = 0;
  return readList<vault::Secret>(cursor, [&](std::string_view text) {
    std::vector<vault::Secret> secrets = recordsOf(vault::decodeSecrets(text));
    for (const vault::Secret& secret : secrets) {
      items += secret.tags.size();
      for (const vault::SecretVersion& version : secret.versions) {
        if (version.allowedDeploymentTargets) items += version.allowedDeploymentTargets->size();
      }
    }
    if (items > kMaxListItems) throw Malformed{};
    return secrets;
  });
}

std::vector<vault::Project> readProjects(JsonCursor& cursor) {
  return readList<vault::Project>(cursor, [](std::string_view text) { return recordsOf(vault::decodeProjects(text)); });
}

std::vector<vault::AccessEvent> readAudit(JsonCursor& cursor) {
  return readList<vault::AccessEvent>(cursor, [](std::string_view text) {
    auto events = vault::decodeEvents(text);
    if (!events) throw Malformed{};
    return *std::move(events);
  });
}

vault::SecretValueEntry readValue(JsonCursor& cursor) {
  vault::SecretValueEntry entry;
  Members members;
  cursor.object([&](std::string_view key) {
    if (key == "secretId") {
      members.mark(1);
      entry.secretId = cursor.string().view();
    } else if (key == "value") {
      members.mark(2);
      entry.value = cursor.string();
    } else if (key == "version") {
      members.mark(4);
      entry.version = cursor.integer();
    } else {
      cursor.skip();
    }
  });
  members.require(7);
  return entry;
}

BackupPayload readPayload(JsonCursor& cursor) {
  BackupPayload payload;
  Members members;
  cursor.object([&](std::string_view key) {
    if (key == "exportedAt") {
      members.mark(1);
      const auto date = base::parseIso8601(cursor.string().view());
      if (!date) throw Malformed{};
      payload.exportedAt = *date;
    } else if (key == "secrets") {
      members.mark(2);
      payload.secrets = readSecrets(cursor);
    } else if (key == "projects") {
      members.mark(4);
      payload.projects = readProjects(cursor);
    } else if (key == "audit") {
      members.mark(8);
      payload.audit = readAudit(cursor);
    } else if (key == "values") {
      members.mark(16);
      cursor.array([&] { payload.values.push_back(readValue(cursor)); });
    } else if (key == "cloudCache" && cursor.kind() != JsonCursor::Kind::null) {
      members.mark(32);
      payload.cloudCache = canonicalCloudCache(cursor.skip());
    } else {
      cursor.skip();
    }
  });
  members.require(31);
  return payload;
}

/// The marker and the payload under it; the marker is absent in the bare form.
struct Wrapping {
  std::optional<std::string_view> format;
  std::optional<std::string_view> payload;
};

Wrapping wrappingOf(std::string_view text) {
  Wrapping wrapping;
  JsonCursor cursor(text);
  cursor.object([&](std::string_view key) {
    const auto keep = [&](std::optional<std::string_view>& place) {
      if (place) throw Malformed{};
      place = cursor.skip();
    };
    if (key == "format") {
      keep(wrapping.format);
    } else if (key == "payload") {
      keep(wrapping.payload);
    } else {
      cursor.skip();
    }
  });
  cursor.end();
  return wrapping;
}

bool isPolicyMarker(std::string_view value) {
  JsonCursor cursor(value);
  return cursor.kind() == JsonCursor::Kind::string && cursor.string().view() == kPolicyFormat;
}

}  // namespace

bool limitsDeploymentTargets(const std::vector<vault::Secret>& secrets) {
  return std::any_of(secrets.begin(), secrets.end(), [](const vault::Secret& secret) {
    return std::any_of(secret.versions.begin(), secret.versions.end(),
                       [](const auto& version) { return version.allowedDeploymentTargets.has_value(); });
  });
}

base::SecretText encodePayload(const BackupPayload& payload) {
  base::JsonWriter writer;
  writer.reserve(estimateOf(payload));
  writePayload(writer, payload, [](base::JsonWriter&) {});
  return writer.take();
}

crypto::Sha256Digest payloadDigest(const BackupPayload& payload, Slashes slashes) {
  crypto::Sha256 digest;
  const auto take = [&](base::JsonWriter& writer) {
    if (slashes == Slashes::escaped) {
      updateEscaped(digest, writer.view());
    } else {
      digest.update(base::bytesOf(writer.view()));
    }
    writer.drop();
  };
  base::JsonWriter writer;
  writer.reserve(2 * kRunBytes);
  writePayload(writer, payload, [&](base::JsonWriter& w) {
    if (w.view().size() >= kRunBytes) take(w);
  });
  take(writer);
  return digest.finish();
}

bool isText(std::string_view text) {
  return simdjson::validate_utf8(text.data(), text.size());
}

BackupPayload decodePayload(std::string_view text) try {
  const Wrapping wrapping = wrappingOf(text);
  if (wrapping.format && !isPolicyMarker(*wrapping.format)) throw CryptoError(CryptoError::Case::newerBackupVersion);
  if (wrapping.format && !wrapping.payload) throw Malformed{};
  JsonCursor cursor(wrapping.format ? *wrapping.payload : text);
  return readPayload(cursor);
} catch (const Malformed&) {
  throw CryptoError(CryptoError::Case::malformedBackup);
}

}  // namespace sorvane::unlock
