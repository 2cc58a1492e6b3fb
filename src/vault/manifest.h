#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "base/clock.h"
#include "base/secret_text.h"
#include "vault/record_codec.h"

namespace sorvane::vault {

inline constexpr std::string_view kManifestFile = "active-vault.json";
inline constexpr std::string_view kGenerationsFolder = "generations";
inline constexpr std::int64_t kManifestVersion = 1;
/// Far above what a manifest needs; bounds what is read of a file that anybody may have put there.
inline constexpr std::uint64_t kMaxManifestBytes = 1U << 20;

/// Manifest tells which generation of files is in use.
struct Manifest {
  std::int64_t version = kManifestVersion;
  std::string current;
  std::optional<std::string> previous;  ///< the generation before the last restore
  std::optional<std::vector<std::string>> cancelledMigrations;
  bool operator==(const Manifest&) const = default;
};

base::SecretText encodeManifest(const Manifest& manifest);
/// newerFormat for a version above kManifestVersion; damaged also when a generation name could be anything but one
/// folder.
DecodeOutcome<Manifest> decodeManifest(std::string_view text);

/// Whether the text is one path component of letters, digits and hyphens.
bool isGenerationName(std::string_view name);
/// A UTC time stamp and 8 random hexadecimal digits.
std::string newGenerationName(base::Date now);
/// The same under a mark of its own: a generation that a restore made keeps its values under its own name in the store.
std::string newRestoredGenerationName(base::Date now);
bool isRestoredGeneration(std::string_view name);
/// The account of a version's value in a generation.
std::string valueAccount(std::string_view generation, std::string_view secretId, std::int64_t version);

}  // namespace sorvane::vault
