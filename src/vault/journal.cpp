#include "vault/journal.h"

#include <nlohmann/json.hpp>

#include "base/codec.h"
#include "base/json.h"
#include "base/json_writer.h"

namespace sorvane::vault {
namespace {

std::optional<VersionAccount> decodeCopy(const base::Json& json) {
  if (!json.is_object() || json.size() != 2) return std::nullopt;
  const auto id = json.find("id");
  const auto version = json.find("version");
  if (id == json.end() || !id->is_string() || version == json.end() || !version->is_number_integer())
    return std::nullopt;
  return VersionAccount{id->get<std::string>(), version->get<std::int64_t>()};
}

bool decodeCopies(const base::Json& json, std::vector<VersionAccount>& out) {
  if (!json.is_array()) return false;
  for (const base::Json& item : json) {
    auto copy = decodeCopy(item);
    if (!copy) return false;
    out.push_back(*std::move(copy));
  }
  return true;
}

bool decodeFiles(const base::Json& json, std::map<std::string, base::Bytes>& out) {
  if (!json.is_object()) return false;
  for (const auto& [name, contents] : json.items()) {
    if (!contents.is_string()) return false;
    auto bytes = base::parseBase64(contents.get_ref<const std::string&>());
    if (!bytes) return false;
    out.emplace(name, *std::move(bytes));
  }
  return true;
}

}  // namespace

base::SecretText encodeJournal(const LocalReversalJournal& journal) {
  base::JsonWriter writer(base::JsonWriter::Style::pretty);
  std::size_t size = 256 + journal.copies.size() * 128;
  for (const auto& [name, bytes] : journal.files) size += name.size() + bytes.size() / 3 * 4 + 64;
  writer.reserve(size);
  writer.beginObject();
  writer.key("committed").boolean(journal.committed);
  writer.key("copies").beginArray();
  for (const VersionAccount& copy : journal.copies) {
    writer.beginObject().field("id", copy.secretId).key("version").integer(copy.version).endObject();
  }
  writer.endArray();
  writer.key("files").beginObject();
  for (const auto& [name, bytes] : journal.files) writer.key(name).base64(bytes);
  writer.endObject();
  writer.endObject();
  return writer.take();
}

std::optional<LocalReversalJournal> decodeJournal(std::string_view text) {
  const auto json = base::parseJson(text);
  if (!json || !json->is_object() || json->size() != 3) return std::nullopt;
  const auto committed = json->find("committed");
  const auto copies = json->find("copies");
  const auto files = json->find("files");
  if (committed == json->end() || copies == json->end() || files == json->end()) return std::nullopt;
  LocalReversalJournal journal;
  if (!committed->is_boolean()) return std::nullopt;
  journal.committed = committed->get<bool>();
  if (!decodeCopies(*copies, journal.copies) || !decodeFiles(*files, journal.files)) return std::nullopt;
  return journal;
}

}  // namespace sorvane::vault
