#pragma once

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/secret_text.h"

namespace sorvane::vault {

/// Deepest folder below the root that is looked into.
inline constexpr std::size_t kMaxWalkDepth = 32;
/// Largest .env file that is read, in bytes.
inline constexpr std::size_t kMaxEnvFileBytes = std::size_t{1024} * 1024;

/// One .env file as the walk found it. Reading checks that it is still the same file.
struct ImportCandidate {
  std::filesystem::path path;
  dev_t device = 0;
  ino_t inode = 0;
};

struct WalkResult {
  std::vector<ImportCandidate> files;   ///< by path; a file with several names once, under the first
  std::vector<std::string> unreadable;  ///< folders that could not be read, by path
  bool tooDeep = false;                 ///< something lay deeper than kMaxWalkDepth
};

/// Finds the .env files below a folder. No link is followed, neither to a folder nor to a file; `root` itself may be
/// one. Folders of dependencies and build results are never entered. `proceed` is asked between folders from the
/// calling thread; when it says no the walk ends with what it has, and what it throws is passed on. Uses a second
/// thread while there are folders for it.
WalkResult walkForEnvFiles(const std::filesystem::path& root, const std::function<bool()>& proceed = {});

/// Whether a file of this name is imported from.
bool isEnvFileName(std::string_view name);

struct FileRead {
  std::optional<base::SecretText> text;
  std::string error;  ///< a sentence when there is no text
};
/// Reads the very file that was found, whatever stands in its place now.
FileRead readCandidate(const ImportCandidate& candidate);

/// "pick a project folder, not …" for the root, a home folder, the support folder, and what holds one of them.
std::optional<std::string> tooBroad(const std::filesystem::path& folder, const std::filesystem::path& home,
                                    const std::filesystem::path& supportFolder);

/// "shop", or "shop (staging)" for ".env.staging" and ".dev.vars.staging".
std::string environmentNameFor(const std::filesystem::path& folder, std::string_view fileName);
/// The deployment target that the file's suffix names.
std::optional<std::string> proposedTarget(std::string_view fileName);

}  // namespace sorvane::vault
