#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "clients/config_text.h"

namespace sorvane::clients::json {

/// JsonMember is where one member of an object stands. `before` and `after` are the places of the punctuation marks
/// around it: '{' or ',', and ',' or '}'.
struct JsonMember {
  Range key;
  Range value;
  std::size_t before = 0;
  std::size_t after = 0;
};

/// JsonObject is one object on the way to the entry.
struct JsonObject {
  Range range;
  std::vector<JsonMember> members;
  /// The member whose key is the path's next.
  std::optional<std::size_t> onPath;
  /// Where the last comment directly in this object ends.
  std::optional<std::size_t> lastComment;
};

/// JsonScan is what a walk over a whole document found. objects[i] is the object in which path[i] is looked for; there
/// are fewer than the path has keys when a parent is missing, and none when the document is blank.
struct JsonScan {
  std::vector<JsonObject> objects;
  std::optional<Range> entry;
};

/// Walks the whole document. Throws ConfigEditError.
JsonScan scanJson(std::string_view document, const EntryPath& path);

/// Behind the white space and comments that start at `at`. Throws ConfigEditError for a comment that does not end.
std::size_t skipTrivia(std::string_view document, std::size_t at);

/// The end of the comment that starts at `at`, a line's end not included; `at` when none starts there.
std::size_t commentEnd(std::string_view document, std::size_t at);

/// A sound value without its comments and trailing commas.
std::string plainJson(std::string_view value);

}  // namespace sorvane::clients::json
