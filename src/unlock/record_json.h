#pragma once

#include <cstdint>
#include <optional>

#include "base/json.h"
#include "unlock/unlock_configuration.h"

namespace sorvane::unlock {

// The members of the room's JSON records. Each is nullopt, or nullptr, for a member that is missing, null or of another
// type.

const base::Json* memberOf(const base::Json& object, const char* key);
/// Standard base64.
std::optional<base::Bytes> bytesAt(const base::Json& object, const char* key);
/// A whole number from 0 to `limit`.
std::optional<std::int64_t> countAt(const base::Json& object, const char* key, std::int64_t limit);
std::optional<bool> flagAt(const base::Json& object, const char* key);
std::optional<PassphraseRequirement> requirementAt(const base::Json& object, const char* key);

/// A date that may be missing: false when there is one that is none.
bool readDate(const base::Json& object, const char* key, std::optional<base::Date>& date);

}  // namespace sorvane::unlock
