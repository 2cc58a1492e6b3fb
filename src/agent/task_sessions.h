#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "agent/protocol.h"
#include "agent/stand_in_names.h"
#include "base/deadline_timer.h"
#include "base/error.h"
#include "base/mutex.h"
#include "base/secret_text.h"
#include "vault/records.h"
#include "vault/revocation.h"

namespace sorvane::agent {

/// Bounds of a session's duration in seconds; the last one where every key of the environment is protected.
inline constexpr std::int64_t kMinSessionSeconds = 60, kMaxSessionSeconds = 86400, kMaxProxySessionSeconds = 604800;
/// Sessions that may live at once.
inline constexpr std::size_t kMaxSessions = 32;

/// TaskSessions is the registry of time-limited approvals. A session lives in memory alone, from `begin` to the first
/// of its deadline, its end, a change of access that revokes it, and the stop of the server. Any thread; callbacks are
/// called without the lock, in the thread that ended the session or in the timer's.
class TaskSessions final : public vault::SessionRevoker {
 public:
  /// Failure carries the sentence that the agent sees.
  class Failure : public base::Error {
   public:
    enum class Case { mutation, unavailable, invalidDuration, capacity, cancelled };
    /// For every case but `mutation`, which carries a message of its own.
    explicit Failure(Case kind);
    explicit Failure(const std::string& mutation) : Error(mutation), kind_(Case::mutation) {}
    Case kind() const { return kind_; }

   private:
    Case kind_;
  };

  /// What the approval covered, frozen when it was given. The lines hold values and are wiped with the snapshot.
  struct Snapshot {
    std::vector<base::SecretText> lines;
    std::optional<std::string> directory;
    std::optional<std::string> deploymentTarget;
    std::optional<std::string> proxyLookupId;
    bool proxyOnly = false;  ///< every key is protected: the session holds stand-ins only
    StandInNames standIns;
    std::string environmentId;
    std::vector<std::string> runControlAllowed;
    std::vector<vault::DeliveredVersion> delivered;  ///< for the access log of each use
  };

  /// Writes an access-log event of the session's client; throws base::Error when that fails.
  using Audit = std::function<void(std::string_view action)>;

  struct NewSession {
    /// A random UUID; made by `begin` when empty.
    std::string id;
    std::string owner;  ///< the caller's identity
    std::string client;
    std::string environment;
    std::int64_t durationSeconds = 0;
    Snapshot snapshot;
    std::string epoch;  ///< read before the owner was asked
    Audit audit;
  };

  /// A live session as its owner may use it. `ended` is stopped when the session ends.
  struct Lookup {
    TaskSessionInfo info;
    std::shared_ptr<const Snapshot> snapshot;
    std::stop_token ended;
  };

  explicit TaskSessions(const base::Clock& clock);

  /// Throws Failure::invalidDuration.
  static void checkDuration(std::int64_t seconds, bool proxyOnly);

  /// Replaced whenever access changes.
  std::string epoch() const;
  /// Whether one more session would be refused; asked before the owner is.
  bool isFull();

  /// Throws Failure. The audit callback is told "task_session_start" before the session exists.
  TaskSessionInfo begin(NewSession session);
  /// Throws Failure::unavailable for an unknown id, a passed deadline and another owner alike.
  Lookup lookup(std::string_view id, std::string_view owner);
  /// Live sessions of the owner, in the order they began.
  std::vector<TaskSessionInfo> list(std::string_view owner);
  std::vector<TaskSessionInfo> listAll();
  void end(std::string_view id, std::string_view owner);
  /// Ends the one live session whose id begins with `prefix` (8 characters or more), whoever owns it; returns it.
  TaskSessionInfo endAny(std::string_view prefix);
  /// Ends what the revocation names and replaces the epoch.
  void revoke(const vault::Revocation& revocation) override;
  /// Ends every session of a caller whose permission changed.
  void endOf(std::string_view owner);
  void endAll();
  /// Ends every session and waits for the timer: nothing is called any more afterwards. Before what audits and
  /// observers use goes.
  void close();
  /// Ends every session whose deadline has passed; the timer calls it.
  void expire();

  /// Remembers which variables of a key were handed out. Does nothing when the session has ended.
  void noteDelivered(std::string_view id, const std::string& key, const std::vector<std::string>& variables);
  std::map<std::string, std::vector<std::string>> deliveredKeys(std::string_view id);

  using ObserverToken = std::string;
  ObserverToken observeEnds(std::function<void(const std::vector<TaskSessionInfo>&)> observer);
  ObserverToken observeRevocations(std::function<void(const vault::Revocation&)> observer);
  /// Told the identity of a caller whose permission changed, after its sessions ended.
  ObserverToken observeOwnerEnds(std::function<void(const std::string& owner)> observer);
  void stopObserving(const ObserverToken& token);

 private:
  struct Entry {
    TaskSessionInfo info;
    std::string owner;
    std::shared_ptr<const Snapshot> snapshot;
    base::Instant deadline;
    Audit audit;
    std::map<std::string, std::vector<std::string>> deliveredKeys;
    std::stop_source ended;
    std::uint64_t order = 0;
  };
  using Entries = std::map<std::string, Entry, std::less<>>;

  Entry* live(std::string_view id) REQUIRES(lock_);
  template <typename Ends>
  std::vector<Entry> take(const Ends& ends) REQUIRES(lock_);
  std::vector<Entry> takeExpired() REQUIRES(lock_);
  void armTimer() REQUIRES(lock_);
  std::vector<TaskSessionInfo> listed(const std::string_view* owner);
  /// Stops what runs under the sessions, writes their last event and tells the observers.
  void finish(std::vector<Entry> ended);

  // Constant after construction.
  const base::Clock& clock_;
  // Guarded. No callback and no I/O while it is held; the timer's lock is taken under it.
  mutable base::Mutex lock_;
  Entries entries_ GUARDED_BY(lock_);
  std::size_t beginning_ GUARDED_BY(lock_) = 0;  ///< sessions whose first event is being written
  std::uint64_t begun_ GUARDED_BY(lock_) = 0;
  std::string epoch_ GUARDED_BY(lock_);
  std::map<std::string, std::function<void(const std::vector<TaskSessionInfo>&)>> endObservers_ GUARDED_BY(lock_);
  std::map<std::string, std::function<void(const vault::Revocation&)>> revocationObservers_ GUARDED_BY(lock_);
  std::map<std::string, std::function<void(const std::string&)>> ownerObservers_ GUARDED_BY(lock_);
  // The last member: its thread is joined before the others go.
  base::DeadlineTimer timer_;
};

}  // namespace sorvane::agent
