#include "agent/task_sessions.h"

#include <algorithm>

#include "base/diagnostics.h"
#include "base/ids.h"

namespace sorvane::agent {
namespace {

constexpr std::size_t kShortestPrefix = 8;

std::string sentenceOf(TaskSessions::Failure::Case kind) {
  using Case = TaskSessions::Failure::Case;
  switch (kind) {
    case Case::mutation:
      return "The task session could not be begun. Nothing was shared. Try again.";
    case Case::unavailable:
      return "Task session expired, ended, or unavailable to this client. No authentication was requested. Ask the "
             "user to start a new session.";
    case Case::invalidDuration:
      return "Choose a task duration from 60 to 86400 seconds. Up to 604800 seconds (7 days) is allowed only when "
             "every "
             "key in the environment is protected.";
    case Case::capacity:
      return "End an existing task session before starting another.";
    case Case::cancelled:
      return "Vault access changed while this session was being approved. Start a new session.";
  }
  return {};
}

bool covers(const vault::Revocation& revocation, const std::string& environment) {
  const auto* const named = std::get_if<vault::RevokeEnvironments>(&revocation);
  return named == nullptr || named->names.contains(environment);
}

}  // namespace

TaskSessions::Failure::Failure(Case kind) : Error(sentenceOf(kind)), kind_(kind) {}

TaskSessions::TaskSessions(const base::Clock& clock)
    : clock_(clock), epoch_(base::randomUuid()), timer_(clock, [this] { expire(); }) {}

void TaskSessions::close() {
  endAll();
  timer_.stop();
}

void TaskSessions::checkDuration(std::int64_t seconds, bool proxyOnly) {
  if (seconds < kMinSessionSeconds || seconds > (proxyOnly ? kMaxProxySessionSeconds : kMaxSessionSeconds)) {
    throw Failure(Failure::Case::invalidDuration);
  }
}

std::string TaskSessions::epoch() const {
  const base::Lock lock(lock_);
  return epoch_;
}

template <typename Ends>
std::vector<TaskSessions::Entry> TaskSessions::take(const Ends& ends) {
  std::vector<Entry> taken;
  for (auto at = entries_.begin(); at != entries_.end();) {
    if (ends(at->second)) {
      taken.push_back(std::move(at->second));
      at = entries_.erase(at);
    } else {
      ++at;
    }
  }
  if (!taken.empty()) armTimer();
  return taken;
}

std::vector<TaskSessions::Entry> TaskSessions::takeExpired() {
  const base::Instant now = clock_.instant();
  return take([&](const Entry& entry) { return entry.deadline <= now; });
}

void TaskSessions::armTimer() {
  std::optional<base::Instant> earliest;
  for (const auto& [id, entry] : entries_) {
    if (!earliest || entry.deadline < *earliest) earliest = entry.deadline;
  }
  timer_.arm(earliest);
}

TaskSessions::Entry* TaskSessions::live(std::string_view id) {
  const auto found = entries_.find(id);
  if (found == entries_.end() || found->second.deadline <= clock_.instant()) return nullptr;
  return &found->second;
}

bool TaskSessions::isFull() {
  expire();
  const base::Lock lock(lock_);
  return entries_.size() + beginning_ >= kMaxSessions;
}

TaskSessionInfo TaskSessions::begin(NewSession session) {
  checkDuration(session.durationSeconds, session.snapshot.proxyOnly);
  expire();
  {
    const base::Lock lock(lock_);
    if (epoch_ != session.epoch) throw Failure(Failure::Case::cancelled);
    if (entries_.size() + beginning_ >= kMaxSessions) throw Failure(Failure::Case::capacity);
    ++beginning_;
  }
  // The place is kept while the event is written, which may block: no lock is held over it.
  struct Place {
    TaskSessions& sessions;
    ~Place() {
      const base::Lock lock(sessions.lock_);
      --sessions.beginning_;
    }
  };
  Entry entry;
  {
    const Place place{*this};
    try {
      session.audit("task_session_start");
    } catch (const base::Error& error) {
      throw Failure(error.sentence());
    }
    const auto duration = std::chrono::seconds(session.durationSeconds);
    entry.info.id = session.id.empty() ? base::randomUuid() : std::move(session.id);
    entry.info.client = std::move(session.client);
    entry.info.environment = std::move(session.environment);
    entry.info.startedAt = clock_.now();
    entry.info.expiresAt = entry.info.startedAt + duration;
    entry.info.proxyLookupId = session.snapshot.proxyLookupId;
    entry.owner = std::move(session.owner);
    entry.snapshot = std::make_shared<const Snapshot>(std::move(session.snapshot));
    entry.deadline = clock_.instant() + duration;
    entry.audit = std::move(session.audit);
    const TaskSessionInfo info = entry.info;
    {
      const base::Lock lock(lock_);
      if (epoch_ == session.epoch) {
        entry.order = ++begun_;
        entries_.emplace(info.id, std::move(entry));
        armTimer();
        return info;
      }
    }
  }
  // Access changed while the event was written: the log tells that the session ended at once.
  std::vector<Entry> ended;
  ended.push_back(std::move(entry));
  finish(std::move(ended));
  throw Failure(Failure::Case::cancelled);
}

TaskSessions::Lookup TaskSessions::lookup(std::string_view id, std::string_view owner) {
  const base::Lock lock(lock_);
  const Entry* const entry = live(id);
  if (entry == nullptr || entry->owner != owner) throw Failure(Failure::Case::unavailable);
  return {entry->info, entry->snapshot, entry->ended.get_token()};
}

std::vector<TaskSessionInfo> TaskSessions::listed(const std::string_view* owner) {
  const base::Lock lock(lock_);
  std::vector<const Entry*> found;
  for (const auto& [id, entry] : entries_) {
    if (entry.deadline > clock_.instant() && (owner == nullptr || entry.owner == *owner)) found.push_back(&entry);
  }
  std::sort(found.begin(), found.end(), [](const Entry* a, const Entry* b) { return a->order < b->order; });
  std::vector<TaskSessionInfo> infos;
  for (const Entry* const entry : found) infos.push_back(entry->info);
  return infos;
}

std::vector<TaskSessionInfo> TaskSessions::list(std::string_view owner) {
  return listed(&owner);
}

std::vector<TaskSessionInfo> TaskSessions::listAll() {
  return listed(nullptr);
}

void TaskSessions::end(std::string_view id, std::string_view owner) {
  std::vector<Entry> ended;
  {
    const base::Lock lock(lock_);
    const Entry* const entry = live(id);
    if (entry == nullptr || entry->owner != owner) throw Failure(Failure::Case::unavailable);
    ended = take([&](const Entry& other) { return &other == entry; });
  }
  finish(std::move(ended));
}

TaskSessionInfo TaskSessions::endAny(std::string_view prefix) {
  std::vector<Entry> ended;
  {
    const base::Lock lock(lock_);
    const auto matches = [&](const Entry& entry) {
      return entry.deadline > clock_.instant() && entry.info.id.starts_with(prefix);
    };
    const auto count =
        std::count_if(entries_.begin(), entries_.end(), [&](const auto& e) { return matches(e.second); });
    if (prefix.size() < kShortestPrefix || count == 0) throw Failure(Failure::Case::unavailable);
    if (count > 1) {
      throw Failure("More than one task session begins with these characters. None was ended. Give the whole id.");
    }
    ended = take(matches);
  }
  const TaskSessionInfo info = ended.front().info;
  finish(std::move(ended));
  return info;
}

void TaskSessions::revoke(const vault::Revocation& revocation) {
  std::vector<Entry> ended;
  std::vector<std::function<void(const vault::Revocation&)>> observers;
  {
    const base::Lock lock(lock_);
    epoch_ = base::randomUuid();
    ended = take([&](const Entry& entry) { return covers(revocation, entry.info.environment); });
    for (const auto& [token, observer] : revocationObservers_) observers.push_back(observer);
  }
  for (const auto& observer : observers) observer(revocation);
  finish(std::move(ended));
}

void TaskSessions::endOf(std::string_view owner) {
  std::vector<Entry> ended;
  std::vector<std::function<void(const std::string&)>> observers;
  {
    const base::Lock lock(lock_);
    epoch_ = base::randomUuid();
    ended = take([&](const Entry& entry) { return entry.owner == owner; });
    for (const auto& [token, observer] : ownerObservers_) observers.push_back(observer);
  }
  finish(std::move(ended));
  for (const auto& observer : observers) observer(std::string(owner));
}

void TaskSessions::endAll() {
  std::vector<Entry> ended;
  {
    const base::Lock lock(lock_);
    epoch_ = base::randomUuid();
    ended = take([](const Entry&) { return true; });
  }
  finish(std::move(ended));
}

void TaskSessions::expire() {
  std::vector<Entry> ended;
  {
    const base::Lock lock(lock_);
    ended = takeExpired();
    if (ended.empty()) armTimer();
  }
  finish(std::move(ended));
}

void TaskSessions::finish(std::vector<Entry> ended) {
  if (ended.empty()) return;
  std::vector<TaskSessionInfo> infos;
  for (Entry& entry : ended) {
    entry.ended.request_stop();
    infos.push_back(entry.info);
  }
  std::vector<std::function<void(const std::vector<TaskSessionInfo>&)>> observers;
  {
    const base::Lock lock(lock_);
    for (const auto& [token, observer] : endObservers_) observers.push_back(observer);
  }
  for (const auto& observer : observers) observer(infos);
  // Last: what the session left is gone, however long the log takes.
  for (Entry& entry : ended) {
    try {
      if (entry.audit) entry.audit("task_session_end");
    } catch (const std::exception& error) {
      base::diagnose("agent", std::string("the end of a task session could not be logged: ") + error.what());
    }
  }
}

void TaskSessions::noteDelivered(std::string_view id, const std::string& key,
                                 const std::vector<std::string>& variables) {
  const base::Lock lock(lock_);
  if (Entry* const entry = live(id)) entry->deliveredKeys[key] = variables;
}

std::map<std::string, std::vector<std::string>> TaskSessions::deliveredKeys(std::string_view id) {
  const base::Lock lock(lock_);
  const Entry* const entry = live(id);
  return entry == nullptr ? std::map<std::string, std::vector<std::string>>() : entry->deliveredKeys;
}

TaskSessions::ObserverToken TaskSessions::observeEnds(
    std::function<void(const std::vector<TaskSessionInfo>&)> observer) {
  const base::Lock lock(lock_);
  const std::string token = base::randomUuid();
  endObservers_[token] = std::move(observer);
  return token;
}

TaskSessions::ObserverToken TaskSessions::observeRevocations(std::function<void(const vault::Revocation&)> observer) {
  const base::Lock lock(lock_);
  const std::string token = base::randomUuid();
  revocationObservers_[token] = std::move(observer);
  return token;
}

TaskSessions::ObserverToken TaskSessions::observeOwnerEnds(std::function<void(const std::string&)> observer) {
  const base::Lock lock(lock_);
  return ownerObservers_.emplace(base::randomUuid(), std::move(observer)).first->first;
}

void TaskSessions::stopObserving(const ObserverToken& token) {
  const base::Lock lock(lock_);
  endObservers_.erase(token);
  revocationObservers_.erase(token);
  ownerObservers_.erase(token);
}

}  // namespace sorvane::agent
