#include "agent/endpoint_watch.h"

#include <sys/stat.h>

#include <mutex>
#include <utility>

#include "base/diagnostics.h"
#include "base/mutex.h"

namespace sorvane::agent {

EndpointWatch::EndpointWatch(std::string component, std::filesystem::path supportFolder,
                             std::chrono::milliseconds every, Check check)
    : component_(std::move(component)),
      supportFolder_(std::move(supportFolder)),
      every_(every),
      check_(std::move(check)),
      thread_([this](const std::stop_token& stop) { run(stop); }) {}

void EndpointWatch::run(const std::stop_token& stop) {
  base::Mutex mutex;
  base::Condition never;
  std::string lastFailure;
  while (!stop.stop_requested()) {
    {
      std::unique_lock<base::Mutex> waiting(mutex);
      never.wait_for(waiting, stop, every_, [] { return false; });
    }
    if (!stop.stop_requested()) look(lastFailure);
  }
}

void EndpointWatch::look(std::string& lastFailure) {
  // While the folder itself is away there is nothing to publish into; it is looked for again the next time.
  struct stat status {};
  if (::lstat(supportFolder_.c_str(), &status) != 0) return;
  const auto failure = check_();
  if (failure && *failure != lastFailure) base::diagnose(component_, *failure);
  lastFailure = failure.value_or("");
}

}  // namespace sorvane::agent
