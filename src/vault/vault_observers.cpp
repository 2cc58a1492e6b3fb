#include "vault/vault_observers.h"

#include "base/diagnostics.h"
#include "base/ids.h"

namespace sorvane::vault {
namespace {

template <typename Table, typename... Arguments>
void callEach(const Table& observers, const Arguments&... arguments) {
  for (const auto& [token, observer] : observers) {
    try {
      observer(arguments...);
    } catch (const std::exception& error) {
      base::diagnose("vault", std::string("an observer of changes failed: ") + error.what());
    }
  }
}

}  // namespace

Vault::ObserverToken Vault::Observers::add(Changed observer) {
  const base::Lock lock(lock_);
  return changed_.emplace(base::randomUuid(), std::move(observer)).first->first;
}

Vault::ObserverToken Vault::Observers::add(Created observer) {
  const base::Lock lock(lock_);
  return created_.emplace(base::randomUuid(), std::move(observer)).first->first;
}

Vault::ObserverToken Vault::Observers::add(Removed observer) {
  const base::Lock lock(lock_);
  return removed_.emplace(base::randomUuid(), std::move(observer)).first->first;
}

Vault::ObserverToken Vault::Observers::add(Protection observer) {
  const base::Lock lock(lock_);
  return protection_.emplace(base::randomUuid(), std::move(observer)).first->first;
}

void Vault::Observers::remove(const ObserverToken& token) {
  const base::Lock lock(lock_);
  changed_.erase(token);
  created_.erase(token);
  removed_.erase(token);
  protection_.erase(token);
}

void Vault::Observers::changed(const std::vector<std::string>& ids) {
  const auto observers = [this] {
    const base::Lock lock(lock_);
    return changed_;
  }();
  callEach(observers, ids);
}

void Vault::Observers::created(const std::string& id, const std::string& name) {
  const auto observers = [this] {
    const base::Lock lock(lock_);
    return created_;
  }();
  callEach(observers, id, name);
}

void Vault::Observers::removed(const std::string& id) {
  const auto observers = [this] {
    const base::Lock lock(lock_);
    return removed_;
  }();
  callEach(observers, id);
}

void Vault::Observers::protection(const std::set<std::string>& environments) {
  const auto observers = [this] {
    const base::Lock lock(lock_);
    return protection_;
  }();
  callEach(observers, environments);
}

}  // namespace sorvane::vault
