#include <nlohmann/json.hpp>
#include <stdexcept>

#include "clients/config_text.h"
#include "clients/toml_scan.h"

namespace sorvane::clients::toml {
namespace {

std::string inQuotes(std::string_view text) {
  constexpr std::string_view kHex = "0123456789ABCDEF";
  std::string out = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out.append(1, '\\').append(1, c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (byte < 0x20 || byte == 0x7F) {
      out.append("\\u00").append(1, kHex[byte >> 4]).append(1, kHex[byte & 15]);
    } else {
      out += c;
    }
  }
  return out + '"';
}

std::string keyText(const std::string& key) {
  constexpr std::string_view kBare = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
  return !key.empty() && key.find_first_not_of(kBare) == std::string::npos ? key : inQuotes(key);
}

std::string headerText(const TomlKey& path) {
  std::string out;
  for (const std::string& key : path) out.append(out.empty() ? "[" : ".").append(keyText(key));
  return out + "]";
}

std::string valueText(const OrderedJson& value) {
  if (value.is_null()) throw std::invalid_argument("TOML has no null");
  if (value.is_string()) return inQuotes(value.get_ref<const std::string&>());
  if (!value.is_structured()) return value.dump();
  std::string out;
  for (const auto& item : value.items()) {
    if (!out.empty()) out += ", ";
    if (value.is_object()) out += keyText(item.key()) + " = ";
    out += valueText(item.value());
  }
  if (value.is_array()) return "[" + out + "]";
  return out.empty() ? "{}" : "{ " + out + " }";
}

/// The table and, behind it, one subtable for each member that is an object. No line end at the end.
std::string tableText(const TomlKey& path, const OrderedJson& entry, std::string_view lineEnd) {
  std::string out = headerText(path);
  std::string subtables;
  for (const auto& item : entry.items()) {
    if (!item.value().is_object()) {
      out.append(lineEnd).append(keyText(item.key()) + " = " + valueText(item.value()));
      continue;
    }
    TomlKey below = path;
    below.push_back(item.key());
    subtables.append(lineEnd).append(lineEnd).append(headerText(below));
    for (const auto& inner : item.value().items()) {
      subtables.append(lineEnd).append(keyText(inner.key()) + " = " + valueText(inner.value()));
    }
  }
  return out + subtables;
}

bool endsLine(std::string_view text) {
  return text.ends_with('\n');
}

/// Text and line ends between the end of `document` and a table put there, so that one empty line stands between them.
std::string gapBehind(std::string_view document, std::string_view lineEnd) {
  const std::string end(lineEnd);
  if (!endsLine(document)) return end + end;
  std::string_view body = document;
  body.remove_suffix(body.ends_with("\r\n") ? 2 : 1);
  return endsLine(body) ? "" : end;
}

}  // namespace

std::optional<Range> find(std::string_view document, const EntryPath& path) {
  return scanToml(document, path).entry;
}

std::optional<base::Json> read(std::string_view document, const EntryPath& path) {
  const TomlScan scan = scanToml(document, path);
  if (!scan.entry) return std::nullopt;
  base::Json entry = base::Json::object();
  base::Json* table = &entry;
  for (const TomlStatement& statement : scan.statements) {
    switch (statement.kind) {
      case TomlStatement::Kind::table:
      case TomlStatement::Kind::arrayTable:
        // Tables that are opened a second time, or below an array, are rare enough to be called not understood.
        table = statement.key.empty() ? &entry : newMember(entry, statement.key);
        if (table == nullptr || statement.kind == TomlStatement::Kind::arrayTable) return std::nullopt;
        break;
      case TomlStatement::Kind::pair: {
        TomlCursor cursor{document, statement.value.begin};
        auto value = readValue(cursor);
        base::Json* member = newMember(*table, statement.key);
        if (!value || member == nullptr) return std::nullopt;
        *member = std::move(*value);
        break;
      }
    }
  }
  return entry;
}

Edited set(std::string_view document, const EntryPath& path, const OrderedJson& entry) {
  const TomlScan scan = scanToml(document, path);
  const std::string_view lineEnd = lineEndOf(document);
  UndoRecord undo;
  undo.wrote = tableText(path, entry, lineEnd);
  if (scan.entry) {
    undo.replaced = scan.entry->of(document);
    return {spliced(document, *scan.entry, undo.wrote), undo.encoded()};
  }
  if (isBlank(document)) {
    undo.blank = document;
    undo.trail = lineEnd;
    return {std::string(markOf(document)).append(undo.wrote).append(lineEnd), undo.encoded()};
  }
  undo.lead = gapBehind(document, lineEnd);
  undo.trail = endsLine(document) ? lineEnd : "";
  return {std::string(document).append(undo.lead).append(undo.wrote).append(undo.trail), undo.encoded()};
}

std::optional<std::string> restore(std::string_view document, const EntryPath& path, const UndoRecord& undo) {
  const TomlScan scan = scanToml(document, path);
  if (!scan.entry || scan.entry->of(document) != undo.wrote) return std::nullopt;
  if (undo.replaced) return spliced(document, *scan.entry, *undo.replaced);
  std::string_view before = document.substr(0, scan.entry->begin);
  std::string_view behind = document.substr(scan.entry->end);
  if (undo.blank && before == markOf(document) && isBlank(behind)) return *undo.blank;
  if (behind.starts_with(undo.trail)) behind.remove_prefix(undo.trail.size());
  // The line ends in front of the table go only where they do not end another line by now.
  const bool goesOn = !behind.empty() && !behind.starts_with('\n') && !behind.starts_with("\r\n");
  const std::string_view shorter = before.substr(0, leadStart(before, undo.lead).value_or(before.size()));
  const bool unendedBefore = undo.trail.empty() && !goesOn;
  if (shorter.empty() || endsLine(shorter) || unendedBefore) before = shorter;
  return std::string(before).append(behind);
}

}  // namespace sorvane::clients::toml
