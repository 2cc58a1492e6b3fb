#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "agent/approval.h"

namespace sorvane::agent {

/// What a question ends with whose yes is the phone's to say.
inline constexpr std::string_view kOnlyNoHere =
    "Your policy has the phone allow this. Here you can only say no: type n and Enter. [n] ";

/// The question as the owner reads it on a terminal, ending with "[y/N] " or kOnlyNoHere. Everything that a caller
/// supplied is quoted, marked as its own words and escaped, so that it can neither move the cursor nor pass for one of
/// our lines: those begin at the left edge or with two spaces and a fixed word. The label is cut; a command and a
/// folder stand whole, wrapped, with runs of blanks counted. `together` is the number of equal requests that one answer
/// decides.
std::string terminalQuestion(const OwnerApprovalPrompt& prompt, const ApprovalContext& context, std::size_t together);

/// The processes that ask, each started by the next, and a command's words, as they stand in such a question: on one
/// line, with the caller's words quoted.
std::string processesForOwner(const std::vector<base::ProcessInfo>& processes);
std::string commandForOwner(const std::vector<std::string>& words);

/// A caller's name for itself, quoted and cut.
std::string labelForOwner(std::string_view text);

/// `text` escaped, in quotes, with every run of three or more blanks written as a count, so that nothing is pushed out
/// of sight.
std::string quotedForOwner(std::string_view text);

}  // namespace sorvane::agent
