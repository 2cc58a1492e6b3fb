#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "base/clock.h"
#include "base/error.h"
#include "base/mutex.h"

namespace sorvane::agent {

/// JobStopped is thrown through the work of a job that was cancelled.
class JobStopped : public base::Error {
 public:
  JobStopped() : Error("The work was cancelled. What was done up to there stays.") {}
  explicit JobStopped(std::string_view sentence) : Error(std::string(sentence)) {}
};

/// Jobs runs long work in threads of its own, tells how far it is, and keeps what came of it for an hour. A job ends
/// with its work, when it is cancelled at its next step, or when this object goes, which waits for it. Any thread.
class Jobs {
 public:
  enum class State { running, done, failed, cancelled };
  struct View {
    std::string id;
    std::string kind;
    std::int64_t done = 0;
    std::int64_t total = 0;
    State state = State::running;
    std::optional<std::string> error;
    std::optional<std::string> document;  ///< JSON, when done
  };
  /// Called between items; throws JobStopped once the job was cancelled.
  using Step = std::function<void(std::int64_t done, std::int64_t total)>;
  /// Returns the job's document. What it throws as base::Error becomes the job's error.
  using Work = std::function<std::optional<std::string>(const Step&)>;

  explicit Jobs(const base::Clock& clock) : clock_(clock) {}
  ~Jobs();

  /// Starts the work and returns the job's id.
  std::string start(std::string kind, Work work);
  std::optional<View> view(std::string_view id);
  /// False when there is no such job.
  bool cancel(std::string_view id);

 private:
  struct Job;
  void forgetOld() REQUIRES(mutex_);

  // Constant after construction.
  const base::Clock& clock_;
  // Guarded. A leaf.
  base::Mutex mutex_;
  std::map<std::string, std::shared_ptr<Job>, std::less<>> jobs_ GUARDED_BY(mutex_);
};

std::string_view word(Jobs::State state);

}  // namespace sorvane::agent
