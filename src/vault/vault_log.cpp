#include "base/date.h"
#include "base/ids.h"
#include "vault/access_log.h"
#include "vault/vault.h"
#include "vault/vault_observers.h"
#include "vault/vault_sentences.h"

namespace sorvane::vault {

void Vault::log(const std::vector<AccessEvent>& events) {
  const base::RecursiveLock lock(lock_);
  requireOpen();
  try {
    checkGeneration();
  } catch (const base::FileError& error) {
    throw VaultError(sentence::notLogged(error.sentence()));
  }
  appendEvents(events);
}

void Vault::log(const AccessContext& context, const std::optional<std::string>& projectId) {
  AccessEvent event = eventOf(context);
  event.projectId = projectId;
  log(std::vector<AccessEvent>{std::move(event)});
}

std::vector<AccessEvent> Vault::accessLog() {
  const base::RecursiveLock lock(lock_);
  requireOpen();
  try {
    checkGeneration();
    if (auto events = readLog(ports_.files, generationFolder(generation_))) return *std::move(events);
  } catch (const base::FileError& error) {
    throw VaultError(sentence::notRead(error.sentence()));
  }
  throw VaultError(std::string(sentence::kLogUnreadable));
}

LogRepair Vault::repairAccessLog() {
  const base::RecursiveLock lock(lock_);
  requireOpen();
  try {
    checkGeneration();
    const std::string stamp = base::compactStamp(ports_.clock.now()) + "-" + base::randomHex(8);
    return repairLog(ports_.files, generationFolder(generation_), stamp);
  } catch (const base::FileError& error) {
    throw VaultError(sentence::notChanged(error.sentence()));
  }
}

Vault::ObserverToken Vault::observeSecretChanges(std::function<void(const std::vector<std::string>&)> observer) {
  return observers_->add(Observers::Changed(std::move(observer)));
}
Vault::ObserverToken Vault::observeSecretCreated(std::function<void(const std::string&, const std::string&)> observer) {
  return observers_->add(Observers::Created(std::move(observer)));
}
Vault::ObserverToken Vault::observeSecretRemoved(std::function<void(const std::string&)> observer) {
  return observers_->add(Observers::Removed(std::move(observer)));
}
void Vault::stopObserving(const ObserverToken& token) {
  observers_->remove(token);
}

}  // namespace sorvane::vault
