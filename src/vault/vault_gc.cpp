#include <algorithm>

#include "base/diagnostics.h"
#include "vault/manifest.h"
#include "vault/sealed_files.h"
#include "vault/vault_change.h"
#include "vault/vault_sentences.h"

namespace sorvane::vault {
namespace {

/// Whether a retired version is past its grace. Without a grace every one is, also one retired in this very second.
bool isOver(const SecretVersion& version, Date now, std::int64_t days) {
  if (version.status != VersionStatus::retired) return false;
  if (days == 0) return true;
  if (!version.retiredAt) return false;
  const std::int64_t since = (now - *version.retiredAt).count();
  constexpr std::int64_t kSecondsPerDay = 86400;
  // Since > days * kSecondsPerDay, without the product that could overflow.
  return since > 0 && days <= (since - 1) / kSecondsPerDay;
}

/// Whether the account is one that this vault made for a value.
bool isOwnValue(std::string_view account) {
  constexpr std::string_view kPrefix = "sec_", kRestored = "restore:";
  constexpr std::size_t kDigits = 32;
  if (account.starts_with(kRestored)) {
    // One that a restore staged stands behind the name of its generation, under the id that the backup gave it.
    const std::string_view generation =
        account.substr(kRestored.size(), account.find(':', kRestored.size()) - kRestored.size());
    return account.size() > kRestored.size() + generation.size() && isGenerationName(generation) &&
           isRestoredGeneration(generation);
  }
  const auto parsed = parseVersionAccount(account);
  return parsed && parsed->secretId.starts_with(kPrefix) && parsed->secretId.size() == kPrefix.size() + kDigits &&
         parsed->secretId.find_first_not_of("0123456789abcdef", kPrefix.size()) == std::string::npos;
}

}  // namespace

/// Sweep is one collection while it runs.
struct Vault::Sweep {
  struct Item {
    VersionAccount account;
    std::string secretName;
    Date updatedBefore;  ///< of the secret, for when nothing of it can be purged after all
  };
  std::int64_t days = 0;
  Change change;
  std::vector<Item> purged;  ///< marked in the metadata; their values are removed in this order
  std::size_t removed = 0;   ///< how many of them are gone
  std::vector<std::string> orphans;
};

VaultGcReport Vault::collectGarbage(std::int64_t days, const Progress& progress) {
  if (days < 0) throw VaultError(std::string(sentence::kNegativeGrace));
  Sweep sweep;
  sweep.days = days;
  std::exception_ptr failure;
  VaultGcReport report;
  {
    const base::RecursiveLock lock(lock_);
    beginSweep(sweep);
    try {
      removeSwept(sweep, progress);
      report = reportOf(sweep);
    } catch (...) {
      failure = std::current_exception();
      keepUnswept(sweep);
    }
  }
  announce(sweep.change);
  if (failure) std::rethrow_exception(failure);
  return report;
}

/// Marks what is over as purged, so that no record names a value that is about to go, and finds the orphans.
void Vault::beginSweep(Sweep& sweep) {
  const Date now = ports_.clock.now();
  sweep.change.records = std::make_shared<Records>(*currentRecords());
  for (Secret& secret : sweep.change.records->secrets) {
    const Date updatedBefore = secret.updatedAt;
    for (SecretVersion& version : secret.versions) {
      if (!isOver(version, now, sweep.days)) continue;
      sweep.change.revokeUsers(secret.id, version.version);
      version.status = VersionStatus::purged;
      secret.updatedAt = now;
      if (sweep.purged.empty() || sweep.purged.back().account.secretId != secret.id) {
        sweep.change.changedSecrets.push_back(secret.id);
      }
      sweep.purged.push_back({{secret.id, version.version}, secret.name, updatedBefore});
    }
  }
  sweep.change.secretsChanged = !sweep.purged.empty();
  sweep.change.alwaysJournalled = true;
  commit(sweep.change);
  std::unordered_set<std::string> going;
  for (const Sweep::Item& item : sweep.purged) going.insert(accountFor(item.account.secretId, item.account.version));
  try {
    removeUnusedGenerations();
    sweep.orphans = orphanAccounts();
  } catch (const base::FileError& error) {
    throw VaultError(sentence::notRead(error.sentence()));
  }
  std::erase_if(sweep.orphans, [&](const std::string& account) { return going.contains(account); });
}

Vault::Names Vault::orphanAccounts() {
  const auto named = namedAccounts(provenKey(), {});
  if (!named) return {};  // a generation that cannot be read may still name them
  Names orphans = ports_.store.accounts();
  std::erase_if(orphans, [&](const std::string& account) { return !isOwnValue(account) || named->contains(account); });
  return orphans;
}

void Vault::removeSwept(Sweep& sweep, const Progress& progress) {
  const auto total = static_cast<std::int64_t>(sweep.purged.size() + sweep.orphans.size());
  std::int64_t done = 0;
  const auto tell = [&] {
    if (progress) progress(done, total);
  };
  for (const Sweep::Item& item : sweep.purged) {
    tell();
    nextBoundary();
    try {
      ports_.store.remove(accountFor(item.account.secretId, item.account.version));
    } catch (const SecretStoreError&) {
      throw VaultError(sentence::valueNotDeleted(item.account.version, item.secretName));
    }
    ++sweep.removed;
    ++done;
  }
  for (const std::string& orphan : sweep.orphans) {
    tell();
    try {
      ports_.store.remove(orphan);
    } catch (const SecretStoreError& error) {
      throw VaultError(sentence::orphanNotDeleted(error.sentence()));
    }
    ++done;
  }
  tell();
}

/// Takes the mark back from versions whose values are still there. When that fails too they are orphans, which the next
/// collection removes.
void Vault::keepUnswept(const Sweep& sweep) {
  if (sweep.removed == sweep.purged.size()) return;
  try {
    const std::unique_ptr<Change> change = beginChange();
    for (std::size_t i = sweep.removed; i < sweep.purged.size(); ++i) {
      const VersionAccount& kept = sweep.purged[i].account;
      Secret& secret = change->secret(kept.secretId);
      for (SecretVersion& version : secret.versions) {
        if (version.version == kept.version) version.status = VersionStatus::retired;
      }
      const bool untouched =
          std::none_of(sweep.purged.begin(), sweep.purged.begin() + static_cast<std::ptrdiff_t>(sweep.removed),
                       [&](const Sweep::Item& item) { return item.account.secretId == kept.secretId; });
      if (untouched) secret.updatedAt = sweep.purged[i].updatedBefore;
    }
    change->secretsChanged = true;
    commit(*change);
  } catch (const base::Error& error) {
    base::diagnose("vault", "versions stay marked as purged before their values are gone: " + error.sentence());
  }
}

VaultGcReport Vault::reportOf(const Sweep& sweep) {
  VaultGcReport report;
  report.purgedSwept = static_cast<std::int64_t>(sweep.purged.size());
  const Names listed = ports_.store.accounts();
  const Accounts held(listed.begin(), listed.end());
  const auto records = currentRecords();
  for (const Secret& secret : records->secrets) {
    for (const SecretVersion& version : secret.versions) {
      if (version.status == VersionStatus::purged || held.contains(accountFor(secret.id, version.version))) continue;
      report.missingValues.push_back(sentence::valueNotFound(version.version, secret.name));
    }
  }
  return report;
}

}  // namespace sorvane::vault
