#pragma once

#include <memory>
#include <string>

// What the programs take from the system on the terminal that a person types into. Apart from the application's own
// adapters, so that the helper program can be linked without their libraries.

namespace sorvane::platform {

/// TerminalQuestion has the system put its question whether the owner is there on the terminal of this process, for as
/// long as it lives. Nothing else may read the terminal meanwhile. A program that a person typed into holds one while
/// it waits for `sorvaned`, and tells it so, so that the question is asked for this process and nowhere else:
///
///     const auto question = platform::askOnTerminal("Unlock sorvane");
///     request.answersItself = question->answersHere();
class TerminalQuestion {
 public:
  /// Takes an open question back and restores the terminal.
  virtual ~TerminalQuestion() = default;
  /// Whether the system asks here: false without a terminal, and where it asks in a window of its own.
  virtual bool answersHere() const = 0;
};

/// Never nullptr. `reason` is shown with the question. Takes a few milliseconds, five seconds at most.
std::unique_ptr<TerminalQuestion> askOnTerminal(std::string reason);

}  // namespace sorvane::platform
