#include <sys/stat.h>

#include <condition_variable>

#include "agent/server.h"
#include "base/diagnostics.h"

namespace sorvane::agent {

// The endpoint of AgentServer, watched and opened anew when it was replaced or failed.

void AgentServer::watchEndpoint(const std::stop_token& stop) {
  base::Mutex mutex;
  base::Condition never;
  std::string lastFailure;
  while (!stop.stop_requested()) {
    {
      std::unique_lock<base::Mutex> waiting(mutex);
      never.wait_for(waiting, stop, settings_.watchEvery, [] { return false; });
    }
    if (!stop.stop_requested()) checkEndpoint(lastFailure);
  }
}

void AgentServer::checkEndpoint(std::string& lastFailure) {
  const base::Lock lifecycle(lifecycle_);
  if (!wanted_) return;
  // While the folder itself is away there is nothing to publish into; it is looked for again the next time.
  struct stat status {};
  if (::lstat(settings_.supportFolder.c_str(), &status) != 0) return;
  std::optional<std::string> failure;
  if (!isRunning()) {
    failure = open();
  } else if (requests_.hasFailed() || socketAt(socketPath_) != publishedSocket_) {
    base::diagnose("agent", "the socket file was replaced or removed, or failed; listening again");
    close();
    failure = open();
  } else if (!published_.isIntact() && !published_.publish(info())) {
    failure = "could not publish endpoint";
  }
  if (failure && *failure != lastFailure) base::diagnose("agent", *failure);
  lastFailure = failure.value_or("");
}

}  // namespace sorvane::agent
