#include "unlock/vault_switch.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "base/date.h"
#include "base/diagnostics.h"
#include "base/ids.h"
#include "base/json.h"
#include "base/json_writer.h"

namespace sorvane::unlock {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kMaxRecordBytes = 1U << 14;
constexpr std::size_t kNameDigits = 16;

bool liesAt(const fs::path& path) {
  std::error_code error;
  const fs::file_type type = fs::symlink_status(path, error).type();
  return type != fs::file_type::not_found && type != fs::file_type::none;
}

bool isHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}

/// Whether the name is the prefix, then letters, digits and hyphens, and ends with random digits: one folder and no
/// other.
bool isNamed(std::string_view name, std::string_view prefix) {
  if (!name.starts_with(prefix) || name.size() < prefix.size() + kNameDigits) return false;
  const std::string_view digits = name.substr(name.size() - kNameDigits);
  return std::all_of(digits.begin(), digits.end(), isHexDigit) &&
         name.substr(prefix.size()).find('/') == std::string_view::npos;
}

std::string asideName(std::string_view prefix, base::Date now) {
  std::string stamp = base::iso8601(now);
  std::erase_if(stamp, [](char c) { return c == ':' || c == '-'; });
  return std::string(prefix) + stamp + "." + base::randomHex(kNameDigits);
}

}  // namespace

void VaultSwitch::settle() {
  const auto contents = files_.read(folder_ / kRecordName, kMaxRecordBytes);
  if (contents) follow(decode(base::textOf(contents->bytes)));
  for (const std::string& name : files_.list(folder_)) {
    if (isNamed(name, kStagePrefix)) removeStage(folder_ / name);
  }
}

fs::path VaultSwitch::makeStage() {
  fs::path stage = folder_ / (std::string(kStagePrefix) + base::randomHex(kNameDigits));
  files_.makeFolder(stage);
  return stage;
}

void VaultSwitch::removeStage(const fs::path& stage) {
  std::error_code error;
  fs::remove_all(stage, error);
  if (error) base::diagnose("backup", "a vault that was not put in place stays in " + stage.string());
}

fs::path VaultSwitch::carryOut(const fs::path& stage, base::Date now) {
  Record record{stage.filename().string(), asideName(kAsidePrefix, now), {}};
  for (const std::string& name : names_) {
    if (liesAt(stage / name)) record.put.push_back(name);
  }
  const fs::path aside = folder_ / record.aside;
  files_.makeFolder(aside);
  try {
    files_.writeAtomically(folder_ / kRecordName, base::bytesOf(encode(record)));
  } catch (const base::FileError&) {
    // It may lie there and only the sync behind it have failed: then it is taken back, so that nothing was decided.
    files_.remove(folder_ / kRecordName);
    std::error_code ignored;
    fs::remove(aside, ignored);
    throw;
  }
  follow(record);
  return aside;
}

bool VaultSwitch::wasDecided() const {
  return liesAt(folder_ / kRecordName);
}

/// May be begun anew after an end at any point: what is in the stage is not yet in place.
void VaultSwitch::follow(const Record& record) {
  const fs::path stage = folder_ / record.stage, aside = folder_ / record.aside;
  for (const std::string& name : names_) {
    const bool isPut = std::find(record.put.begin(), record.put.end(), name) != record.put.end();
    if (isPut && !liesAt(stage / name)) continue;  // it is in place
    if (liesAt(folder_ / name)) move(folder_ / name, aside / name);
    if (isPut) move(stage / name, folder_ / name);
  }
  files_.remove(folder_ / kRecordName);
  removeStage(stage);
}

void VaultSwitch::move(const fs::path& from, const fs::path& to) {
  if (liesAt(to))
    throw VaultSwitchError(to.string() +
                           " is in the way of a restore that was begun. Move it away, then restart sorvaned.");
  files_.rename(from, to);
}

std::string VaultSwitch::encode(const Record& record) const {
  base::JsonWriter out;
  out.beginObject().field("aside", std::string_view(record.aside)).strings("put", record.put);
  out.field("stage", std::string_view(record.stage)).endObject();
  return std::string(out.view());
}

VaultSwitch::Record VaultSwitch::decode(std::string_view text) const {
  const VaultSwitchError damaged((folder_ / kRecordName).string() +
                                 ", the record of a restore that was begun, is damaged. Nothing was opened. Its files "
                                 "are in the folders beside it.");
  const auto json = base::parseJson(text);
  if (!json || !json->is_object()) throw damaged;
  const auto textAt = [&](const char* name) {
    const auto found = json->find(name);
    if (found == json->end() || !found->is_string()) throw damaged;
    return found->get<std::string>();
  };
  Record record{textAt("stage"), textAt("aside"), {}};
  const auto put = json->find("put");
  if (put == json->end() || !put->is_array()) throw damaged;
  for (const base::Json& name : *put) {
    if (!name.is_string() || std::find(names_.begin(), names_.end(), name) == names_.end()) throw damaged;
    record.put.push_back(name.get<std::string>());
  }
  if (!isNamed(record.stage, kStagePrefix) || !isNamed(record.aside, kAsidePrefix)) throw damaged;
  return record;
}

}  // namespace sorvane::unlock
