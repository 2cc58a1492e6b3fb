#include "base/temporary_files.h"

namespace sorvane::base {

bool isTemporaryFile(std::string_view name) {
  constexpr std::size_t kDigits = 16;
  constexpr std::string_view kSuffix = Files::kTemporarySuffix;
  if (name.size() < 3 + kDigits + kSuffix.size() || name.front() != '.' || !name.ends_with(kSuffix)) return false;
  name.remove_suffix(kSuffix.size());
  const std::string_view digits = name.substr(name.size() - kDigits);
  return digits.find_first_not_of("0123456789abcdef") == std::string_view::npos &&
         name[name.size() - kDigits - 1] == '.';
}

void removeTemporaryFiles(Files& files, const std::filesystem::path& folder) {
  for (const std::string& name : files.list(folder)) {
    if (!isTemporaryFile(name)) continue;
    try {
      files.remove(folder / name);
    } catch (const FileError&) {
      continue;
    }
  }
}

}  // namespace sorvane::base
