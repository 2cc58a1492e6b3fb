#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/secret_text.h"
#include "vault/accounts.h"

namespace sorvane::vault {

inline constexpr std::string_view kJournalFile = "local-reversal.json";

/// LocalReversalJournal holds what undoes a change of several files, or of a file and values, that was cut short. It
/// lies in the vault directory from before the first write of the change until after the last; removing it is what
/// commits the change.
struct LocalReversalJournal {
  /// Written by others: such a journal asks for nothing but its removal.
  bool committed = false;
  /// The versions whose values the change stores.
  std::vector<VersionAccount> copies;
  /// The sealed bytes that each file of the generation had before the change.
  std::map<std::string, base::Bytes> files;
  bool operator==(const LocalReversalJournal&) const = default;
};

base::SecretText encodeJournal(const LocalReversalJournal& journal);
/// nullopt unless the text has exactly the written form. File names are not judged here.
std::optional<LocalReversalJournal> decodeJournal(std::string_view text);

}  // namespace sorvane::vault
