#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/pam_library.h"

namespace sorvane::platform {

// polkit's own set-user-id program, which checks a password for an agent and tells polkit itself.

/// Its file; empty where it is not installed.
std::string agentHelperPath();
/// The name of the user in the system's list of accounts; where that does not have it, the one that the environment
/// says. Empty: neither. A wrong one is refused by polkit.
std::string accountName(uid_t user);
/// Undoes the escapes of C in which the program writes its lines.
std::string unescaped(std::string_view text);

/// What a helper is asked for: the password of `user` for the question with `cookie`.
struct AgentHelperTask {
  std::string helper, user, cookie;
};
enum class AgentHelperEnd {
  granted,      ///< polkit knows
  notAccepted,  ///< a wrong password, an account that may not be used, or a person who gave up
};
/// Runs the program until it says so, or until the descriptor `takenBack` is readable.
AgentHelperEnd runAgentHelper(const AgentHelperTask& task, const PamConversation& conversation, int takenBack);

}  // namespace sorvane::platform
