#pragma once

#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "clients/config_edit.h"

// What holds for edits of configuration files in either format; the fuzz targets check it on every input.

namespace sorvane::clients {

inline void hold(bool property) {
  if (!property) std::abort();
}

template <typename Call>
bool refuses(const Call& call) {
  try {
    call();
    return false;
  } catch (const ConfigEditError& error) {
    hold(error.sentence().find("Nothing was changed.") != std::string::npos);
    return true;
  }
}

inline void checkUndo(ConfigFormat format, std::string_view document, const EntryPath& path, const OrderedJson& entry) {
  const Edited edited = setEntry(format, document, path, entry);
  hold(findEntry(format, edited.document, path).has_value());
  hold(readEntry(format, edited.document, path) == base::Json::parse(entry.dump()));
  hold(restoreEntry(format, edited.document, path, edited.undo) == document);
  // A neighbour that comes later stays as it is, and what is left is sound.
  EntryPath neighbour(path.begin(), path.end() - 1);
  neighbour.emplace_back("neighbour");
  if (refuses([&] { (void)findEntry(format, edited.document, neighbour); })) return;
  const Edited both = setEntry(format, edited.document, neighbour, entry);
  const auto alone = restoreEntry(format, both.document, path, edited.undo);
  hold(alone.has_value());
  hold(findEntry(format, *alone, path).has_value() == findEntry(format, document, path).has_value());
  hold(readEntry(format, *alone, neighbour) == base::Json::parse(entry.dump()));
  const auto neither = restoreEntry(format, *alone, neighbour, both.undo);
  hold(neither.has_value() && !refuses([&] { (void)findEntry(format, *neither, path); }));
}

inline void checkEdits(ConfigFormat format, std::string_view document) {
  static const OrderedJson entry =
      OrderedJson::parse(R"({"z":"a\n\"","args":["mcp","é"],"n":-1,"env":{"T":"","S.x":"v"}})");
  for (const EntryPath& path : {EntryPath{"a", "b"}, EntryPath{"b"}, EntryPath{"a", "b", "c"}}) {
    const bool refused = refuses([&] { (void)findEntry(format, document, path); });
    hold(refused == refuses([&] { (void)readEntry(format, document, path); }));
    hold(refused == refuses([&] { (void)setEntry(format, document, path, entry); }));
    const std::string undo = setEntry(format, "", path, entry).undo;
    hold(refused == refuses([&] { (void)restoreEntry(format, document, path, undo); }));
    if (!refused) checkUndo(format, document, path, entry);
  }
}

}  // namespace sorvane::clients
