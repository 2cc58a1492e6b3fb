#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"
#include "base/mutex.h"
#include "base/secret_text.h"
#include "crypto/digest.h"
#include "proxy/limits.h"
#include "proxy/text_key.h"

namespace sorvane::proxy {

/// ProxyCredential is the real key of one provider. `value` is never logged and never written to a file.
struct ProxyCredential {
  ProxyProvider provider = ProxyProvider::anthropic;
  std::string secretId;
  std::int64_t version = 0;
  base::SecretText value;
};

/// ProxyGrant is what a token stands for. Immutable once issued; shared by the calls that run under it.
struct ProxyGrant {
  std::string lookupId;                ///< 16 lower-case base32 characters, the public half of the token
  crypto::Sha256Digest tokenDigest{};  ///< of the whole token's text; the token itself is kept nowhere
  std::optional<std::string> taskSessionId;
  std::optional<std::string> runId;
  std::string environment;  ///< the environment's id
  std::string client;
  std::map<ProxyProvider, ProxyCredential> credentials;
  ProxyLimits limits;
  base::Date createdAt;
};

/// ProxyGrantStore is what the server asks about a presented token.
class ProxyGrantStore {
 public:
  virtual ~ProxyGrantStore() = default;
  /// The live grant of this token, or nullptr; why there is none is not told. Any thread, never blocks on anything but
  /// a short lock.
  virtual std::shared_ptr<const ProxyGrant> lookUp(std::string_view token) const = 0;
};

/// A grant as its creator wants it; the registry mints the token.
struct NewGrantEntry {
  ProxyGrant grant;         ///< without lookupId, tokenDigest and createdAt
  std::string owner;        ///< key under which it is ended
  std::string description;  ///< its client and environment, for notices
  /// Writes an event of the grant to the access log; a failure at the grant's end is said on standard error.
  std::function<void(std::string_view action)> audit;
};
struct MintedGrant {
  base::SecretText token;  ///< handed out once
  std::shared_ptr<const ProxyGrant> grant;
};

/// LocalProxyGrants is the registry of live grants. They live in memory alone. Any thread; callbacks are called without
/// the lock, in the thread that ended the grant.
class LocalProxyGrants final : public ProxyGrantStore {
 public:
  explicit LocalProxyGrants(const base::Clock& clock) : clock_(clock) {}

  /// Called with the lookup id of every grant that ends, for any reason, before its last event is written. Handlers are
  /// kept for the registry's life and must not throw.
  void addHandler(std::function<void(std::string_view lookupId)> handler);
  /// Called with the lookup id of a grant whose time is over, after the handlers.
  void onExpired(std::function<void(std::string_view lookupId)> told);
  /// Tells what a grant has spent, for its last event; asked before the handlers are called.
  void spendFrom(std::function<Micros(std::string_view lookupId)> spent);

  /// Writes "proxy_grant_start" and mints the token. Throws what `audit` throws; there is no grant then.
  MintedGrant issue(NewGrantEntry entry);
  std::shared_ptr<const ProxyGrant> lookUp(std::string_view token) const override;
  /// nullptr when there is no such grant, or its time is over.
  std::shared_ptr<const ProxyGrant> find(std::string_view lookupId) const;
  /// "" when the grant is not known.
  std::string describe(std::string_view lookupId) const;

  void end(std::string_view lookupId);
  void endOwner(std::string_view owner);
  void endCarrying(std::string_view secretId);
  void endWhere(const std::function<bool(const ProxyGrant&)>& ends);
  void endAll();
  /// Ends every grant whose time is over, by the wall clock or by the monotonic one, so that setting the wall clock
  /// back lengthens none.
  void expire();
  /// When `expire` will next have something to do.
  std::optional<base::Instant> nextExpiry() const;

 private:
  struct Entry {
    std::shared_ptr<const ProxyGrant> grant;
    std::string owner, description;
    base::Date deadline;      ///< limits.expiresAt
    base::Instant latestEnd;  ///< the same by the monotonic clock, as it stood at the beginning
    std::function<void(std::string_view)> audit;
    std::set<std::string, std::less<>> secretIds;
  };
  template <typename Ends>
  std::vector<Entry> take(const Ends& ends);
  void finish(std::vector<Entry> ended, const std::function<void(std::string_view)>& expired = {});

  // Constant after construction.
  const base::Clock& clock_;
  // Guarded. A leaf: no callback while it is held.
  mutable base::Mutex mutex_;
  TextMap<Entry> entries_ GUARDED_BY(mutex_);
  std::vector<std::function<void(std::string_view)>> handlers_ GUARDED_BY(mutex_);
  std::function<void(std::string_view)> onExpired_ GUARDED_BY(mutex_);
  std::function<Micros(std::string_view)> spent_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::proxy
