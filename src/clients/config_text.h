#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "clients/config_edit.h"

// What the two formats share: places in a document, the sentences of refusal, and the record behind `undo`.

namespace sorvane::clients {

inline constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

/// Range is the bytes [begin, end) of a document.
struct Range {
  std::size_t begin = 0;
  std::size_t end = 0;
  std::string_view of(std::string_view document) const { return document.substr(begin, end - begin); }
};

/// The line end of the document's first line; "\n" when it has one line only.
std::string_view lineEndOf(std::string_view document);

/// The mark at the document's start, or nothing.
std::string_view markOf(std::string_view document);

/// Nothing stands in the document but white space, perhaps behind a byte-order mark.
bool isBlank(std::string_view document);

/// `document` with the bytes of `range` replaced.
std::string spliced(std::string_view document, Range range, std::string_view replacement);

/// Where `lead` starts at the end of `front`. nullopt when something else stands there, or a line end of two bytes of
/// which `lead` would take one.
std::optional<std::size_t> leadStart(std::string_view front, std::string_view lead);

/// Throws ConfigEditError: the document is damaged at `at`. `what` is a clause such as "a string is not closed".
[[noreturn]] void refuseDamaged(std::string_view document, std::size_t at, std::string_view what);
/// Throws ConfigEditError: the document is sound, but the entry or its parent is not written as a table of its own.
[[noreturn]] void refuseShape(std::string_view document, std::size_t at, std::string_view what);

/// UndoRecord is what setEntry remembers. Either `replaced` is the earlier bytes of the entry, or the entry was added:
/// `lead` + entry (or the outermost parent created with it) + `trail` stand where `removed` stood. `blank` is the whole
/// document of before when it was blank.
struct UndoRecord {
  std::string wrote;
  std::optional<std::string> replaced;
  std::string lead;
  std::string trail;
  std::string removed;
  std::size_t parents = 0;
  std::optional<std::string> blank;

  std::string encoded() const;
  /// Throws ConfigEditError.
  static UndoRecord decoded(std::string_view text);
};

// One format's half of each function; the document was checked for size and for UTF-8.
namespace json {
std::optional<Range> find(std::string_view document, const EntryPath& path);
std::optional<base::Json> read(std::string_view document, const EntryPath& path);
Edited set(std::string_view document, const EntryPath& path, const OrderedJson& entry);
std::optional<std::string> restore(std::string_view document, const EntryPath& path, const UndoRecord& undo);
}  // namespace json

namespace toml {
std::optional<Range> find(std::string_view document, const EntryPath& path);
std::optional<base::Json> read(std::string_view document, const EntryPath& path);
Edited set(std::string_view document, const EntryPath& path, const OrderedJson& entry);
std::optional<std::string> restore(std::string_view document, const EntryPath& path, const UndoRecord& undo);
}  // namespace toml

}  // namespace sorvane::clients
