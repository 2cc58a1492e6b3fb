#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "vault/vault.h"

namespace sorvane::vault {

/// Observers keeps who wants to hear of changed secrets. An observer that is being called may still hear of one change
/// after it was removed by another thread. What an observer throws is dropped: the change stands.
class Vault::Observers {
 public:
  using Changed = std::function<void(const std::vector<std::string>& ids)>;
  using Created = std::function<void(const std::string& id, const std::string& name)>;
  using Removed = std::function<void(const std::string& id)>;

  using Protection = std::function<void(const std::set<std::string>& environments)>;

  ObserverToken add(Protection observer) EXCLUDES(lock_);
  ObserverToken add(Changed observer) EXCLUDES(lock_);
  ObserverToken add(Created observer) EXCLUDES(lock_);
  ObserverToken add(Removed observer) EXCLUDES(lock_);
  void remove(const ObserverToken& token) EXCLUDES(lock_);

  void changed(const std::vector<std::string>& ids) EXCLUDES(lock_);
  void created(const std::string& id, const std::string& name) EXCLUDES(lock_);
  void removed(const std::string& id) EXCLUDES(lock_);
  void protection(const std::set<std::string>& environments) EXCLUDES(lock_);

 private:
  // A leaf: the tables are copied under it and the observers called without it.
  base::Mutex lock_;
  std::map<ObserverToken, Changed> changed_ GUARDED_BY(lock_);
  std::map<ObserverToken, Created> created_ GUARDED_BY(lock_);
  std::map<ObserverToken, Removed> removed_ GUARDED_BY(lock_);
  std::map<ObserverToken, Protection> protection_ GUARDED_BY(lock_);
};

}  // namespace sorvane::vault
