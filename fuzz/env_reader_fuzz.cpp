// Whatever the bytes are, a reading never has more keys than lines, names only variables, each once, and holds
// only values that stand in the file.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>
#include <string_view>

#include "vault/config_scan.h"
#include "vault/env_reader.h"
#include "vault/records.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto findings = sorvane::vault::scanConfigText(text);
  const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
  for (const auto& finding : findings) {
    if (finding.line == 0 || finding.line > lines) std::abort();
  }
  const auto read = sorvane::vault::readEnv(text);
  if (!read) return 0;
  if (read->entries.size() + read->skippedLines > lines) std::abort();
  std::set<std::string_view> names;
  for (const auto& entry : read->entries) {
    if (!sorvane::vault::isVariableName(entry.name) || !names.insert(entry.name).second) std::abort();
    if (entry.line == 0 || entry.line > lines) std::abort();
    if (text.find(entry.value.view()) == std::string_view::npos) std::abort();
  }
  for (const std::string& name : read->duplicates) {
    if (!names.contains(name)) std::abort();
  }
  return 0;
}
