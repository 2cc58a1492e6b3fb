#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace sorvane::vault {

/// ScanFinding is one value that looks like a credential, as it may be shown.
struct ScanFinding {
  std::size_t line = 0;  ///< from 1
  std::string key;
  std::string masked;
  std::string kind;
};

// Pure; both take foreign bytes. References to variables and placeholders are no findings.

std::vector<ScanFinding> scanEnvText(std::string_view text);
/// Pairs of a quoted or bare key and a quoted value, as JSON and TOML write them, one way of quoting a line.
std::vector<ScanFinding> scanConfigText(std::string_view text);

}  // namespace sorvane::vault
