#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "base/json.h"

namespace sorvane::clients {

/// Largest configuration file that is read. The biggest ones in the field, with a client's history in them, stay below.
inline constexpr std::size_t kMaxConfigBytes = std::size_t{4} * 1024 * 1024;
/// Deepest nesting of objects, arrays and tables, so that a hostile file cannot exhaust the stack.
inline constexpr int kMaxConfigDepth = 64;

/// How a configuration file is written. `json` is RFC 8259 plus comments, trailing commas and a byte-order mark;
/// `toml` is TOML 1.0, and reads the escapes and the many-line inline tables of 1.1 too.
enum class ConfigFormat { json, toml };

/// ConfigEditError says in whole sentences why a file is left alone: it is damaged, or the entry is written in a way
/// that is not edited as text. It names lines, never what stands in them: configuration files hold tokens.
class ConfigEditError : public base::Error {
 public:
  using base::Error::Error;
};

/// EntryPath is the keys from the root to the entry, at least one: {"mcpServers", "sorvane"}, in TOML the name of the
/// table {"mcp_servers", "sorvane"}. Keys are compared after quotes and escapes are undone.
using EntryPath = std::vector<std::string>;

/// An object that keeps its keys in the order given: entries are written in the order their author chose.
using OrderedJson = nlohmann::ordered_json;

/// FoundEntry is the entry's bytes as they stand in the document. JSON: the value. TOML: from the table's header to the
/// end of its last pair's line, without that line's end, subtables such as [mcp_servers.sorvane.env] included.
struct FoundEntry {
  std::string text;
};

/// Edited is what setEntry made. `undo` may hold values of the entry that was replaced: keep it sealed.
struct Edited {
  std::string document;
  std::string undo;
};

// All functions are pure: they read and write no files, keep nothing, and may be called from any thread. Each throws
// ConfigEditError for a document that is damaged: not UTF-8, over kMaxConfigBytes, deeper than kMaxConfigDepth,
// unbalanced, a key on the path twice, or something other than an object or a table on the path. TOML entries that are
// inline tables, dotted keys, arrays of tables or scattered over the file are refused in the same way. What one of the
// functions refuses, all refuse.

/// nullopt when there is none.
std::optional<FoundEntry> findEntry(ConfigFormat format, std::string_view document, const EntryPath& path);

/// The entry's value; a TOML table as the object it stands for. nullopt when there is none, and when it is not
/// understood: duplicate keys in it, deeper than base::kMaxJsonDepth, TOML's dates, infinities and larger integers.
std::optional<base::Json> readEntry(ConfigFormat format, std::string_view document, const EntryPath& path);

/// Sets the entry and creates the parents that are missing. An entry that stands already is replaced where it stands; a
/// new one goes behind the last member of its parent, in TOML to the end of the file. Every other byte stays as it is;
/// what is inserted takes on the document's line ends and indentation. A document of nothing but white space becomes a
/// new one. `entry` is an object of strings, booleans, numbers, arrays and objects; text in it that is not UTF-8 is
/// refused with ConfigEditError, a null for TOML is std::invalid_argument.
Edited setEntry(ConfigFormat format, std::string_view document, const EntryPath& path, const OrderedJson& entry);

/// Takes back what the setEntry did that gave `undo`: the document of before, byte for byte, or, when other parts were
/// changed meanwhile, `document` with our piece alone taken out or the earlier entry put back. Parents that setEntry
/// created go too when they hold nothing else. nullopt when the entry is gone or its bytes are not those that were
/// written. Throws ConfigEditError for an `undo` that cannot be read.
std::optional<std::string> restoreEntry(ConfigFormat format, std::string_view document, const EntryPath& path,
                                        std::string_view undo);

}  // namespace sorvane::clients
