#include "agent/server.h"
#include "base/diagnostics.h"

namespace sorvane::agent {

// The endpoint of AgentServer, opened anew when it was replaced or failed.

std::optional<std::string> AgentServer::checkEndpoint() {
  const base::Lock lifecycle(lifecycle_);
  if (!wanted_ || paused_) return std::nullopt;
  if (!isRunning()) return open();
  if (requests_.hasFailed() || socketAt(socketPath_) != publishedSocket_) {
    base::diagnose("agent", std::string(kListeningAgain));
    close();
    return open();
  }
  if (!published_.isIntact() && !published_.publish(info())) return "could not publish endpoint";
  return std::nullopt;
}

}  // namespace sorvane::agent
