#pragma once

#include <optional>
#include <string_view>
#include <variant>
#include <vector>

#include "base/json_writer.h"
#include "base/secret_text.h"
#include "vault/records.h"

namespace sorvane::vault {

// The JSON of the records, as docs/formats.md lays it down. Pure functions: text in, records or a refusal out. A
// decoder takes null for an absent field, ignores keys it does not know, and refuses everything else that is not of the
// written form: a missing field, a wrong type, an unknown word, a date in another form, a key that occurs twice,
// nesting beyond kMaxRecordDepth.

inline constexpr std::size_t kMaxRecordDepth = 16;

/// Why a file of records was refused: it is damaged, or its format marker is one that this release does not know.
enum class DecodeFailure { damaged, newerFormat };

template <typename T>
using DecodeOutcome = std::variant<T, DecodeFailure>;

/// Sorted keys, pretty. The wrapped form is written when any version is limited to deployment targets, the bare list
/// otherwise.
base::SecretText encodeSecrets(const std::vector<Secret>& secrets);
base::SecretText encodeProjects(const std::vector<Project>& projects);

DecodeOutcome<std::vector<Secret>> decodeSecrets(std::string_view text);
DecodeOutcome<std::vector<Project>> decodeProjects(std::string_view text);

/// One record as a value of `writer`.
void write(base::JsonWriter& writer, const Secret& secret);
void write(base::JsonWriter& writer, const Project& project);
void write(base::JsonWriter& writer, const AccessEvent& event);

/// Appends the event as one compact line with its line feed. Text that is not UTF-8 is repaired: an event is never
/// lost.
void appendEventLine(base::SecretText& out, const AccessEvent& event);
/// One line without its line feed; nullopt when it is not an event.
std::optional<AccessEvent> decodeEvent(std::string_view line);
/// The older whole-file form of the access log: one list.
std::optional<std::vector<AccessEvent>> decodeEvents(std::string_view text);

}  // namespace sorvane::vault
