#include "clients/install_ledger.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "base/ids.h"
#include "base/json.h"
#include "base/json_writer.h"
#include "vault/sealed_settings.h"

namespace sorvane::clients {
namespace {

constexpr std::string_view kSetting = "install-ledger";
/// Most bytes of text in one setting; a part is the text itself.
constexpr std::size_t kMostBytes = 2800;

[[noreturn]] void damaged() {
  throw vault::SettingError(vault::SettingError::Case::storage,
                            "The record of what sorvane changed in agent clients' files is damaged, so nothing was "
                            "changed. Remove sorvane's entries from those files by hand.");
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

std::optional<InstallLedger::Head> InstallLedger::head() {
  const auto stored = settings_.load(kSetting);
  if (!stored) return std::nullopt;
  const auto json = base::parseJson(stored->view());
  if (!json || !json->is_array()) damaged();
  Head head;
  if (json->empty() || !json->front().is_string()) {
    head.text = stored->view();
    return head;
  }
  for (const base::Json& part : *json) {
    if (!part.is_string()) damaged();
    head.parts.push_back(part.get<std::string>());
    const auto piece = settings_.load(head.parts.back());
    if (!piece) damaged();
    head.text += piece->view();
  }
  return head;
}

std::vector<LedgerRow> InstallLedger::load() {
  std::vector<LedgerRow> rows;
  const auto found = head();
  if (!found) return rows;
  const auto json = base::parseJson(found->text);
  if (!json || !json->is_array()) damaged();
  for (const base::Json& item : *json) rows.push_back(rowOf(item));
  return rows;
}

void InstallLedger::save(const std::vector<LedgerRow>& rows) {
  const auto before = head();
  const std::string text = textOf(rows);
  if (text.size() <= kMostBytes) {
    settings_.save(kSetting, text);
  } else {
    base::JsonWriter names;
    names.beginArray();
    for (std::size_t at = 0; at < text.size(); at += kMostBytes) {
      const std::string name = std::string(kSetting) + "-" + base::randomHex(16);
      settings_.save(name, std::string_view(text).substr(at, kMostBytes));
      names.string(name);
    }
    names.endArray();
    settings_.save(kSetting, names.view());
  }
  if (!before) return;
  for (const std::string& part : before->parts) settings_.remove(part);
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
