#include "proxy/grants.h"

#include <array>

#include "base/diagnostics.h"
#include "base/error.h"
#include "base/ids.h"
#include "proxy/token.h"

namespace sorvane::proxy {
namespace {

std::string randomLookupId() {
  std::array<std::uint8_t, kLookupBytes> bytes{};
  base::fillRandom(bytes);
  return std::string(base32(bytes).view());
}

base::SecretText mint(std::string_view lookupId) {
  std::array<std::uint8_t, kTokenSecretBytes> bytes{};
  base::fillRandom(bytes);
  const base::SecretText secret = base32(bytes);
  base::wipe(bytes.data(), bytes.size());
  return tokenText(TokenKind::local, lookupId, secret.view());
}

}  // namespace

void LocalProxyGrants::addHandler(std::function<void(std::string_view)> handler) {
  const base::Lock lock(mutex_);
  handlers_.push_back(std::move(handler));
}

void LocalProxyGrants::onExpired(std::function<void(std::string_view)> told) {
  const base::Lock lock(mutex_);
  onExpired_ = std::move(told);
}

void LocalProxyGrants::spendFrom(std::function<Micros(std::string_view)> spent) {
  const base::Lock lock(mutex_);
  spent_ = std::move(spent);
}

MintedGrant LocalProxyGrants::issue(NewGrantEntry made) {
  if (made.audit) made.audit("proxy_grant_start");
  made.grant.createdAt = clock_.now();
  Entry entry;
  entry.owner = std::move(made.owner);
  entry.description = std::move(made.description);
  entry.audit = std::move(made.audit);
  entry.deadline = made.grant.limits.expiresAt;
  entry.latestEnd =
      clock_.instant() + std::chrono::duration_cast<std::chrono::nanoseconds>(entry.deadline - clock_.wall());
  for (const auto& [provider, credential] : made.grant.credentials) entry.secretIds.insert(credential.secretId);
  // An id that is taken would answer for two grants: drawn again until it is free, which the lock keeps it.
  while (true) {
    made.grant.lookupId = randomLookupId();
    base::SecretText token = mint(made.grant.lookupId);
    made.grant.tokenDigest = crypto::sha256(token.bytes());
    const base::Lock lock(mutex_);
    if (entries_.contains(made.grant.lookupId)) continue;
    entry.grant = std::make_shared<const ProxyGrant>(std::move(made.grant));
    auto grant = entry.grant;
    entries_.emplace(grant->lookupId, std::move(entry));
    return {std::move(token), std::move(grant)};
  }
}

std::shared_ptr<const ProxyGrant> LocalProxyGrants::lookUp(std::string_view token) const {
  const auto parts = parseToken(token);
  if (!parts || parts->kind != TokenKind::local) return nullptr;
  const crypto::Sha256Digest digest = crypto::sha256(base::bytesOf(token));
  auto grant = find(parts->lookupId);
  if (!grant || !base::sameInConstantTime(base::textOf(digest), base::textOf(grant->tokenDigest))) return nullptr;
  return grant;
}

std::shared_ptr<const ProxyGrant> LocalProxyGrants::find(std::string_view lookupId) const {
  const auto now = clock_.wall();
  const base::Lock lock(mutex_);
  const auto found = entries_.find(lookupId);
  if (found == entries_.end() || found->second.deadline <= now) return nullptr;
  return found->second.grant;
}

std::string LocalProxyGrants::describe(std::string_view lookupId) const {
  const base::Lock lock(mutex_);
  const auto found = entries_.find(lookupId);
  return found == entries_.end() ? "" : found->second.description;
}

template <typename Ends>
std::vector<LocalProxyGrants::Entry> LocalProxyGrants::take(const Ends& ends) {
  std::vector<Entry> taken;
  const base::Lock lock(mutex_);
  for (auto at = entries_.begin(); at != entries_.end();) {
    if (ends(at->second)) {
      taken.push_back(std::move(at->second));
      at = entries_.erase(at);
    } else {
      ++at;
    }
  }
  return taken;
}

void LocalProxyGrants::end(std::string_view lookupId) {
  std::vector<Entry> ended;
  {
    const base::Lock lock(mutex_);
    const auto found = entries_.find(lookupId);
    if (found == entries_.end()) return;
    ended.push_back(std::move(found->second));
    entries_.erase(found);
  }
  finish(std::move(ended));
}

void LocalProxyGrants::endOwner(std::string_view owner) {
  finish(take([&](const Entry& entry) { return entry.owner == owner; }));
}

void LocalProxyGrants::endCarrying(std::string_view secretId) {
  finish(take([&](const Entry& entry) { return entry.secretIds.contains(secretId); }));
}

void LocalProxyGrants::endWhere(const std::function<bool(const ProxyGrant&)>& ends) {
  finish(take([&](const Entry& entry) { return ends(*entry.grant); }));
}

void LocalProxyGrants::endAll() {
  finish(take([](const Entry&) { return true; }));
}

void LocalProxyGrants::expire() {
  const auto wall = clock_.wall();
  const base::Instant now = clock_.instant();
  auto ended = take([&](const Entry& entry) { return entry.deadline <= wall || entry.latestEnd <= now; });
  std::function<void(std::string_view)> told;
  {
    const base::Lock lock(mutex_);
    told = onExpired_;
  }
  finish(std::move(ended), told);
}

std::optional<base::Instant> LocalProxyGrants::nextExpiry() const {
  const base::Lock lock(mutex_);
  std::optional<base::Instant> next;
  for (const auto& [id, entry] : entries_) {
    if (!next || entry.latestEnd < *next) next = entry.latestEnd;
  }
  return next;
}

void LocalProxyGrants::finish(std::vector<Entry> ended, const std::function<void(std::string_view)>& expired) {
  if (ended.empty()) return;
  std::vector<std::function<void(std::string_view)>> handlers;
  std::function<Micros(std::string_view)> spent;
  {
    const base::Lock lock(mutex_);
    handlers = handlers_;
    spent = spent_;
  }
  std::vector<Micros> spends;
  for (const Entry& entry : ended) {
    const std::string& id = entry.grant->lookupId;
    // What closes the grant comes first: writing its last event may block.
    spends.push_back(spent ? spent(id) : 0);
    for (const auto& handler : handlers) handler(id);
    if (expired) expired(id);
  }
  for (std::size_t i = 0; i < ended.size(); ++i) {
    if (!ended[i].audit) continue;
    try {
      ended[i].audit("proxy_grant_end spent " + dollarsOf(centsOf(spends[i])));
    } catch (const base::Error& error) {
      base::diagnose("proxy", "The end of a stand-in could not be written to the access log. " + error.sentence());
    }
  }
}

}  // namespace sorvane::proxy
