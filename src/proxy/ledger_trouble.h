#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "proxy/ledger_seal.h"

namespace sorvane::proxy {

/// LedgerTrouble is what is wrong with the ledger.
struct LedgerTrouble {
  std::optional<std::string> file;  ///< why it cannot be written
  std::optional<std::string> seal;  ///< why its seal cannot be read or renewed: a whole sentence
  std::int64_t lost = 0;            ///< calls that were not recorded
  std::int64_t dropped = 0;         ///< lines before the first one of the file
  std::vector<LedgerBreak> breaks;
};

/// One whole sentence, or a few, for each; lines are counted as they stand in the file.
std::vector<std::string> sentencesOf(const LedgerTrouble& trouble);

}  // namespace sorvane::proxy
