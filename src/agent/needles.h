#pragma once

#include <span>
#include <string_view>
#include <vector>

#include "base/secret_text.h"

namespace sorvane::agent {

/// Every text that stands for one of the values in a command's output: the values themselves and, for those of
/// Masker::kEncodedFormsFrom bytes or more, their encoded forms (see Masker). Sorted by bytes, each once, none empty.
std::vector<base::SecretText> needlesOf(std::span<const std::string_view> values);

}  // namespace sorvane::agent
