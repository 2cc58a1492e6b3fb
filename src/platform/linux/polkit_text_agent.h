#pragma once

#include <memory>
#include <string>

#include "platform/shared/terminal_prompt.h"

namespace sorvane::platform {

/// PolkitTextAgent answers polkit's question whether the owner is there on the terminal of this process, for as long as
/// it lives: it shows `reason`, reads the password without echo and hands it to polkit's own helper. It answers for
/// this process alone, and only for the action "org.sorvane.owner-check". Ctrl-C dismisses the question.
///
/// A program that a person typed into holds one while it waits for `sorvaned`, and tells it so, so that the question
/// is asked for this process and nowhere else:
///
///     const platform::PolkitTextAgent agent("Unlock sorvane");
///     request.answersItself = agent.answersHere();
///
/// Nothing else may read the terminal meanwhile. Uses neither the system's D-Bus library nor its account look-up, so
/// that a program that is linked statically can hold it. Construction takes a few milliseconds, five seconds at most.
class PolkitTextAgent {
 public:
  explicit PolkitTextAgent(std::string reason, TerminalPrompt terminal = TerminalPrompt());
  /// Takes an open question back, restores the terminal and leaves polkit.
  ~PolkitTextAgent();
  PolkitTextAgent(const PolkitTextAgent&) = delete;
  PolkitTextAgent& operator=(const PolkitTextAgent&) = delete;

  /// Whether polkit took it: false without a terminal, as root, and without polkit or its helper.
  bool answersHere() const { return agent_ != nullptr; }

 private:
  class Agent;
  std::unique_ptr<Agent> agent_;
};

}  // namespace sorvane::platform
