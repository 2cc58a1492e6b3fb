#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vault/vault.h"

namespace sorvane::vault {

// What is checked of text before it enters the records. Each throws VaultError.

void requireText(std::string_view text);
void requireText(const std::optional<std::string>& text);
void requireText(const std::vector<std::string>& texts);

/// The trimmed name; `whenEmpty` is the sentence for one that is empty then.
std::string nameAtEntry(std::string_view name, std::string_view whenEmpty);

/// The value's size and encoding, and whether its targets fit it.
void requireValue(const NewVersion& version);

}  // namespace sorvane::vault
