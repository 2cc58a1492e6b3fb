#include "vault/store_record.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "base/json.h"
#include "base/json_writer.h"

namespace sorvane::vault {
namespace {

constexpr std::uint64_t kMaxRecordBytes = 4096;

std::string wordsOf(std::span<const StoreKind> kinds, std::string_view between) {
  std::string text;
  for (const StoreKind kind : kinds) text.append(text.empty() ? "" : between).append(word(kind));
  return text;
}

std::string otherStore(StoreKind recorded, StoreKind asked) {
  return "This vault keeps its values in " + std::string(inWords(recorded)) + ", and --store " +
         std::string(word(asked)) +
         " asks for another place. Nothing was opened. Start sorvaned without --store, then run sorvane store move " +
         std::string(word(asked)) + ".";
}

std::string recordGone(std::span<const StoreKind> offered) {
  return "The file store.json, which tells where this vault keeps its values, is missing or damaged. Nothing was "
         "opened. Start sorvaned once with --store " +
         wordsOf(offered, " or --store ") + ", whichever holds them.";
}

std::string notHere(StoreKind kind) {
  return "This vault keeps its values in " + std::string(inWords(kind)) +
         ", which sorvane does not use on this system. Nothing was opened. Start sorvaned where the vault was made, or "
         "with another support folder, and restore a backup there.";
}

bool contains(std::span<const StoreKind> offered, StoreKind kind) {
  return std::find(offered.begin(), offered.end(), kind) != offered.end();
}

std::optional<StoreKind> kindIn(const base::Json& json, const char* key) {
  const auto found = json.find(key);
  if (found == json.end() || !found->is_string()) return std::nullopt;
  return storeKindOf(found->get_ref<const std::string&>());
}

}  // namespace

std::string_view word(StoreKind kind) {
  switch (kind) {
    case StoreKind::embedded:
      return "embedded";
    case StoreKind::secretService:
      return "secret-service";
    case StoreKind::keychain:
      break;
  }
  return "keychain";
}

std::optional<StoreKind> storeKindOf(std::string_view text) {
  for (const StoreKind kind : {StoreKind::embedded, StoreKind::secretService, StoreKind::keychain}) {
    if (word(kind) == text) return kind;
  }
  return std::nullopt;
}

std::string_view inWords(StoreKind kind) {
  switch (kind) {
    case StoreKind::embedded:
      return "the embedded store";
    case StoreKind::secretService:
      return "the Secret Service";
    case StoreKind::keychain:
      break;
  }
  return "the Keychain";
}

std::string encodeStoreRecord(const StoreRecord& record) {
  base::JsonWriter out(base::JsonWriter::Style::pretty);
  out.beginObject().field("kind", word(record.kind));
  if (record.leaving) out.field("leaving", word(*record.leaving));
  out.endObject();
  return std::string(out.view()) + "\n";
}

std::optional<StoreRecord> decodeStoreRecord(std::string_view text) {
  const auto json = base::parseJson(text);
  if (!json || !json->is_object()) return std::nullopt;
  const auto kind = kindIn(*json, "kind");
  if (!kind) return std::nullopt;
  StoreRecord record{*kind, {}};
  if (const auto leaving = json->find("leaving"); leaving != json->end() && !leaving->is_null()) {
    record.leaving = kindIn(*json, "leaving");
    if (!record.leaving || record.leaving == record.kind) return std::nullopt;
  }
  return record;
}

ReadRecord readStoreRecord(base::Files& files, const std::filesystem::path& supportFolder) {
  const auto contents = files.read(supportFolder / kStoreRecordName, kMaxRecordBytes);
  if (!contents) return {};
  auto record = decodeStoreRecord(base::textOf(contents->bytes));
  const bool damaged = !record;
  return {std::move(record), damaged};
}

void writeStoreRecord(base::Files& files, const std::filesystem::path& supportFolder, const StoreRecord& record) {
  files.writeAtomically(supportFolder / kStoreRecordName, base::bytesOf(encodeStoreRecord(record)));
}

std::string wordsOf(std::span<const StoreKind> kinds) {
  return wordsOf(kinds, " or ");
}

StoreChoice chooseStore(std::optional<StoreKind> asked, const ReadRecord& found, const StoreTraces& traces,
                        std::span<const StoreKind> offered) {
  if (found.record) {
    const StoreRecord& record = *found.record;
    if (!contains(offered, record.kind)) throw StoreRecordError(notHere(record.kind));
    if (record.leaving && !contains(offered, *record.leaving)) throw StoreRecordError(notHere(*record.leaving));
    if (asked && *asked != found.record->kind) throw StoreRecordError(otherStore(found.record->kind, *asked));
    return {*found.record, StoreChoice::Write::no};
  }
  if (!traces.vault && !traces.embeddedDatabase && !found.damaged) {
    return {{asked.value_or(offered.front()), {}}, StoreChoice::Write::now};
  }
  if (asked) return {{*asked, {}}, StoreChoice::Write::onceOpened};
  if (offered.size() == 1) return {{offered.front(), {}}, StoreChoice::Write::onceOpened};
  // A database may also be what a move has left behind: only the vault key in it tells, which the vault looks for.
  if (traces.embeddedDatabase && !found.damaged) return {{StoreKind::embedded, {}}, StoreChoice::Write::onceOpened};
  throw StoreRecordError(recordGone(offered));
}

}  // namespace sorvane::vault
