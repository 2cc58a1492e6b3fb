#include "agent/jobs.h"

#include "base/ids.h"

namespace sorvane::agent {

using namespace std::chrono_literals;

namespace {

/// How long what came of a job can be asked for.
constexpr auto kKept = 1h;

}  // namespace

struct Jobs::Job {
  base::Mutex mutex;
  View view GUARDED_BY(mutex);
  bool cancelled GUARDED_BY(mutex) = false;
  base::Instant ended GUARDED_BY(mutex);
  std::thread thread;

  void step(std::int64_t done, std::int64_t total) {
    const base::Lock lock(mutex);
    view.done = done;
    view.total = total;
    if (cancelled) throw JobStopped();
  }
  void end(State state, std::optional<std::string> error, std::optional<std::string> document, base::Instant now) {
    const base::Lock lock(mutex);
    view.state = state;
    view.error = std::move(error);
    view.document = std::move(document);
    ended = now;
  }
  void run(const Work& work, const base::Clock& clock) {
    try {
      auto document = work([this](std::int64_t done, std::int64_t total) { step(done, total); });
      end(State::done, {}, std::move(document), clock.instant());
    } catch (const JobStopped& stopped) {
      end(State::cancelled, stopped.sentence(), {}, clock.instant());
    } catch (const base::Error& error) {
      end(State::failed, error.sentence(), {}, clock.instant());
    } catch (const std::exception&) {
      end(State::failed, "The work failed for a reason that is not known. Try again.", {}, clock.instant());
    }
  }
  void cancel() {
    const base::Lock lock(mutex);
    cancelled = true;
  }
};

std::string_view word(Jobs::State state) {
  switch (state) {
    case Jobs::State::running:
      return "running";
    case Jobs::State::done:
      return "done";
    case Jobs::State::failed:
      return "failed";
    case Jobs::State::cancelled:
      return "cancelled";
  }
  return "";
}

Jobs::~Jobs() {
  std::map<std::string, std::shared_ptr<Job>, std::less<>> jobs;
  {
    const base::Lock lock(mutex_);
    jobs.swap(jobs_);
  }
  for (const auto& [id, job] : jobs) job->cancel();
  for (const auto& [id, job] : jobs) job->thread.join();
}

void Jobs::forgetOld() {
  const base::Instant now = clock_.instant();
  std::erase_if(jobs_, [&](const auto& entry) {
    const std::shared_ptr<Job>& job = entry.second;
    {
      const base::Lock lock(job->mutex);
      if (job->view.state == State::running || now - job->ended < kKept) return false;
    }
    job->thread.join();
    return true;
  });
}

std::string Jobs::start(std::string kind, Work work) {
  auto job = std::make_shared<Job>();
  const std::string id = base::randomUuid();
  {
    const base::Lock lock(job->mutex);
    job->view.id = id;
    job->view.kind = std::move(kind);
  }
  const base::Lock lock(mutex_);
  forgetOld();
  job->thread = std::thread([this, running = job.get(), work = std::move(work)] { running->run(work, clock_); });
  jobs_.emplace(id, std::move(job));
  return id;
}

std::optional<Jobs::View> Jobs::view(std::string_view id) {
  const base::Lock lock(mutex_);
  const auto found = jobs_.find(id);
  if (found == jobs_.end()) return std::nullopt;
  const base::Lock inner(found->second->mutex);
  return found->second->view;
}

bool Jobs::cancel(std::string_view id) {
  const base::Lock lock(mutex_);
  const auto found = jobs_.find(id);
  if (found == jobs_.end()) return false;
  found->second->cancel();
  return true;
}

}  // namespace sorvane::agent
