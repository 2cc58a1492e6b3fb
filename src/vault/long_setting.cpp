#include "vault/long_setting.h"

#include <nlohmann/json.hpp>
#include <vector>

#include "base/diagnostics.h"
#include "base/ids.h"
#include "base/json.h"
#include "base/json_writer.h"
#include "vault/sealed_settings.h"

namespace sorvane::vault {
namespace {

/// Most bytes of text in one item; the seal and its encoding need the rest.
constexpr std::size_t kMostBytes = 2800;

/// What the pieces are called; empty for a text that is short enough for one.
std::vector<std::string> partsOf(std::string_view head) {
  std::vector<std::string> parts;
  if (!head.starts_with("[\"")) return parts;
  const auto json = base::parseJson(head);
  if (!json || !json->is_array()) return parts;
  for (const base::Json& part : *json) {
    if (!part.is_string()) return {};
    parts.push_back(part.get<std::string>());
  }
  return parts;
}

}  // namespace

std::optional<std::string> loadLongSetting(SealedSettings& settings, std::string_view name,
                                           const std::string& damaged) {
  const auto head = settings.load(name);
  if (!head) return std::nullopt;
  const std::vector<std::string> parts = partsOf(head->view());
  if (parts.empty()) return std::string(head->view());
  std::string text;
  for (const std::string& part : parts) {
    const auto piece = settings.load(part);
    if (!piece) throw SettingError(SettingError::Case::storage, damaged);
    text += piece->view();
  }
  return text;
}

void saveLongSetting(SealedSettings& settings, std::string_view name, std::string_view text) {
  const auto before = settings.load(name);
  if (text.size() <= kMostBytes) {
    settings.save(name, text);
  } else {
    base::JsonWriter names;
    names.beginArray();
    for (std::size_t at = 0; at < text.size(); at += kMostBytes) {
      const std::string part = std::string(name) + "-" + base::randomHex(16);
      settings.save(part, text.substr(at, kMostBytes));
      names.string(part);
    }
    names.endArray();
    settings.save(name, names.view());
  }
  if (!before) return;
  for (const std::string& part : partsOf(before->view())) {
    try {
      settings.remove(part);
    } catch (const SettingError& error) {
      // The new text holds by now; what stays behind is named nowhere.
      base::diagnose("vault", "an old part of a setting could not be removed: " + error.sentence());
    }
  }
}

}  // namespace sorvane::vault
