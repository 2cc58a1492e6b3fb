#include "clients/install_ledger.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "base/json.h"
#include "base/json_writer.h"
#include "vault/long_setting.h"
#include "vault/sealed_settings.h"

namespace sorvane::clients {
namespace {

constexpr std::string_view kSetting = "install-ledger";
constexpr std::string_view kDamaged =
    "The record of what sorvane changed in agent clients' files is damaged, so nothing was changed. Remove sorvane's "
    "entries from those files by hand.";

[[noreturn]] void damaged() {
  throw vault::SettingError(vault::SettingError::Case::storage, std::string(kDamaged));
}

std::string textOf(const std::vector<LedgerRow>& rows) {
  base::JsonWriter out;
  out.beginArray();
  for (const LedgerRow& row : rows) {
    out.beginObject().field("client", row.client).field("project", row.project).field("file", row.file);
    out.field("grantId", row.grantId).field("undo", row.undo).key("createdFile").boolean(row.createdFile).endObject();
  }
  out.endArray();
  return std::string(out.view());
}

LedgerRow rowOf(const base::Json& json) {
  if (!json.is_object()) damaged();
  const auto text = [&](const char* name) {
    const auto found = json.find(name);
    if (found == json.end() || !found->is_string()) damaged();
    return found->get<std::string>();
  };
  const auto created = json.find("createdFile");
  return {text("client"),  text("project"), text("file"),
          text("grantId"), text("undo"),    created != json.end() && created->is_boolean() && created->get<bool>()};
}

}  // namespace

std::vector<LedgerRow> InstallLedger::load() {
  std::vector<LedgerRow> rows;
  const auto text = vault::loadLongSetting(settings_, kSetting, std::string(kDamaged));
  if (!text) return rows;
  const auto json = base::parseJson(*text);
  if (!json || !json->is_array()) damaged();
  for (const base::Json& item : *json) rows.push_back(rowOf(item));
  return rows;
}

void InstallLedger::save(const std::vector<LedgerRow>& rows) {
  vault::saveLongSetting(settings_, kSetting, textOf(rows));
}

std::vector<LedgerRow> InstallLedger::rows() {
  const base::Lock lock(mutex_);
  return load();
}

void InstallLedger::put(const LedgerRow& row) {
  const base::Lock lock(mutex_);
  std::vector<LedgerRow> rows = load();
  const auto same = std::find_if(rows.begin(), rows.end(), [&](const LedgerRow& other) {
    return other.client == row.client && other.project == row.project;
  });
  if (same != rows.end())
    *same = row;
  else
    rows.push_back(row);
  save(rows);
}

void InstallLedger::remove(const std::string& client, const std::string& project) {
  const base::Lock lock(mutex_);
  std::vector<LedgerRow> rows = load();
  std::erase_if(rows, [&](const LedgerRow& row) { return row.client == client && row.project == project; });
  save(rows);
}

}  // namespace sorvane::clients
