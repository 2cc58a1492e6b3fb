#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "clients/config_text.h"

namespace sorvane::clients::toml {

/// TomlCursor is a place in a document. The functions that take one leave it behind what they read, and throw
/// ConfigEditError for what is not TOML.
struct TomlCursor {
  std::string_view text;
  std::size_t at = 0;

  char peek() const { return at < text.size() ? text[at] : '\0'; }
  bool startsWith(std::string_view word) const { return text.substr(at).starts_with(word); }
  bool atLineEnd() const { return at == text.size() || startsWith("\n") || startsWith("\r\n"); }
};

using TomlKey = std::vector<std::string>;

void skipBlanks(TomlCursor& cursor);
void skipComment(TomlCursor& cursor);
/// Blanks, comments and line ends.
void skipLines(TomlCursor& cursor);
/// A key of one or more parts, quotes undone.
TomlKey readKey(TomlCursor& cursor);
/// A value; nullopt for one that is sound but that JSON has no value for.
std::optional<base::Json> readValue(TomlCursor& cursor);

/// The new member of `root` to which `keys` lead, with the tables on the way made; null when a key on the way or the
/// member itself is taken by something else.
base::Json* newMember(base::Json& root, const TomlKey& keys);

/// TomlStatement is a header or a pair of the entry. A header's key is relative to the entry, a pair's to its header.
struct TomlStatement {
  enum class Kind { table, arrayTable, pair };
  Kind kind = Kind::table;
  TomlKey key;
  Range value;
};

/// TomlScan is what a walk over a whole document found.
struct TomlScan {
  std::optional<Range> entry;
  std::vector<TomlStatement> statements;
};

/// Walks the whole document. Throws ConfigEditError.
TomlScan scanToml(std::string_view document, const EntryPath& path);

}  // namespace sorvane::clients::toml
