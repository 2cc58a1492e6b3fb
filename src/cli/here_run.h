#pragma once

#include <string>
#include <vector>

#include "cli/session.h"

namespace sorvane::cli {

/// A command that runs in the person's own terminal with an environment's values.
struct HereRun {
  std::string environment;
  std::string target;     ///< the deployment target that is declared; may be empty
  std::string directory;  ///< where it runs; empty: this folder
  std::vector<std::string> command;
  bool mask = true;
};

/// Asks sorvaned for the values, runs the command and returns its exit code. On a terminal the command gets a
/// pseudo-terminal of its own, otherwise pipes; its output is masked on its way. Without masking this process becomes
/// the command. Throws Failure, also for a command that cannot be started.
int runHere(Session& session, const HereRun& given);

}  // namespace sorvane::cli
