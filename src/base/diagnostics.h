#pragma once

#include <string_view>

namespace sorvane::base {

/// Writes "[component] text" and a line feed to standard error with one write call, so that lines of several threads do
/// not mix. Never called with a secret value.
void diagnose(std::string_view component, std::string_view text);

}  // namespace sorvane::base
