#include "clients/config_edit.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "base/unicode.h"
#include "clients/config_text.h"

namespace sorvane::clients {
namespace {

constexpr std::string_view kNothingChanged = "Nothing was changed. ";

std::string lineNumber(std::string_view document, std::size_t at) {
  const auto before = document.substr(0, at);
  return std::to_string(std::count(before.begin(), before.end(), '\n') + 1);
}

void checkText(std::string_view document) {
  if (document.size() > kMaxConfigBytes) {
    throw ConfigEditError("The configuration file is larger than 4 MiB, and sorvane does not edit such files. " +
                          std::string(kNothingChanged) + "Make the file smaller, or add the entry by hand.");
  }
  if (!base::isUtf8(document) || document.find('\0') != std::string_view::npos) {
    throw ConfigEditError("The configuration file is not UTF-8 text. " + std::string(kNothingChanged) +
                          "Save the file as UTF-8, then try again.");
  }
}

void checkEntry(const OrderedJson& entry) {
  try {
    (void)entry.dump();
  } catch (const OrderedJson::exception&) {
    throw ConfigEditError("The new entry of the configuration file holds text that is not UTF-8. " +
                          std::string(kNothingChanged) + "Give the entry a path or a name in UTF-8, then try again.");
  }
}

}  // namespace

void refuseDamaged(std::string_view document, std::size_t at, std::string_view what) {
  throw ConfigEditError("The configuration file is damaged: in line " + lineNumber(document, at) + " " +
                        std::string(what) + ". " + std::string(kNothingChanged) +
                        "Correct the file by hand, then try again.");
}

void refuseShape(std::string_view document, std::size_t at, std::string_view what) {
  throw ConfigEditError("The configuration file cannot be edited as it is written: in line " +
                        lineNumber(document, at) + " " + std::string(what) + ". " + std::string(kNothingChanged) +
                        "Write the entry as one table with a header of its own, then try again.");
}

std::string_view lineEndOf(std::string_view document) {
  const std::size_t end = document.find('\n');
  return end != std::string_view::npos && end > 0 && document[end - 1] == '\r' ? "\r\n" : "\n";
}

std::string_view markOf(std::string_view document) {
  return document.starts_with(kByteOrderMark) ? kByteOrderMark : std::string_view();
}

bool isBlank(std::string_view document) {
  return document.substr(markOf(document).size()).find_first_not_of(" \t\r\n") == std::string_view::npos;
}

std::string spliced(std::string_view document, Range range, std::string_view replacement) {
  std::string out(document.substr(0, range.begin));
  return out.append(replacement).append(document.substr(range.end));
}

std::optional<std::size_t> leadStart(std::string_view front, std::string_view lead) {
  if (!front.ends_with(lead)) return std::nullopt;
  const std::size_t start = front.size() - lead.size();
  if (lead.starts_with('\n') && start > 0 && front[start - 1] == '\r') return std::nullopt;
  return start;
}

std::string UndoRecord::encoded() const {
  base::Json fields{{"wrote", wrote}};
  if (replaced) {
    fields["replaced"] = *replaced;
  } else {
    fields.update({{"lead", lead}, {"trail", trail}, {"removed", removed}, {"parents", parents}});
    if (blank) fields["blank"] = *blank;
  }
  return fields.dump();
}

UndoRecord UndoRecord::decoded(std::string_view text) {
  try {
    const base::Json fields = base::Json::parse(text);
    UndoRecord record;
    record.wrote = fields.at("wrote").get<std::string>();
    if (fields.contains("replaced")) {
      record.replaced = fields.at("replaced").get<std::string>();
      return record;
    }
    record.lead = fields.at("lead").get<std::string>();
    record.trail = fields.at("trail").get<std::string>();
    record.removed = fields.at("removed").get<std::string>();
    record.parents = fields.at("parents").get<std::size_t>();
    if (fields.contains("blank")) record.blank = fields.at("blank").get<std::string>();
    return record;
  } catch (const base::Json::exception&) {
    throw ConfigEditError("The record of the change to this configuration file cannot be read. " +
                          std::string(kNothingChanged) + "Take the entry out of the file by hand.");
  }
}

std::optional<FoundEntry> findEntry(ConfigFormat format, std::string_view document, const EntryPath& path) {
  checkText(document);
  const auto range = format == ConfigFormat::json ? json::find(document, path) : toml::find(document, path);
  if (!range) return std::nullopt;
  return FoundEntry{std::string(range->of(document))};
}

std::optional<base::Json> readEntry(ConfigFormat format, std::string_view document, const EntryPath& path) {
  checkText(document);
  return format == ConfigFormat::json ? json::read(document, path) : toml::read(document, path);
}

Edited setEntry(ConfigFormat format, std::string_view document, const EntryPath& path, const OrderedJson& entry) {
  checkText(document);
  checkEntry(entry);
  Edited edited = format == ConfigFormat::json ? json::set(document, path, entry) : toml::set(document, path, entry);
  // The file is about to be overwritten with this text: it is read once more, so that a mistake of ours stops here.
  (void)findEntry(format, edited.document, path);
  return edited;
}

std::optional<std::string> restoreEntry(ConfigFormat format, std::string_view document, const EntryPath& path,
                                        std::string_view undo) {
  checkText(document);
  // The document first: what is refused is refused whatever the record says.
  if (!findEntry(format, document, path)) return std::nullopt;
  const UndoRecord record = UndoRecord::decoded(undo);
  return format == ConfigFormat::json ? json::restore(document, path, record) : toml::restore(document, path, record);
}

}  // namespace sorvane::clients
