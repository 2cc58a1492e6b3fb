#pragma once

#include <string>
#include <string_view>

namespace sorvane::vault {

/// Whether a value only holds a place: <…>, x's, "changeme" and its like, "your_…", "your-…".
bool isPlaceholder(std::string_view value);

/// Whether a key of a .env file and its value are credential-shaped. A marker in the key's name decides before the
/// value's length does; a file path is none in any case. Without a marker or a known beginning the value must be long
/// and look random: commit ids, UUIDs, versions and words are none. Placeholders are the caller's to leave out.
bool isCredential(std::string_view key, std::string_view value);

/// The same for a value without a name, as on a clipboard: stricter, so that hashes, identifiers, versions and words
/// are not taken for keys.
bool looksLikeCredential(std::string_view value);

/// What a value looks like, in a few words: "OpenAI key", "connection string"; "secret" when nothing is known of it.
std::string_view kindOf(std::string_view value);

/// A variable name that fits the value, or the empty text.
std::string suggestedName(std::string_view value);

/// The first 3 and last 2 characters of a value of 12 characters or more with dots between, else dots alone.
std::string maskedEdges(std::string_view value);

}  // namespace sorvane::vault
