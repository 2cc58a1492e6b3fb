#pragma once

#include <optional>
#include <string>

#include "base/mutex.h"
#include "vault/secret_store.h"

namespace sorvane::vault {

/// NamespacedSecretStore stages values beside those of `base` during a restore: every account becomes
/// "restore:" + name space + ":" + account, unless the name space is empty. Once `failure` is set, every call fails
/// with it. Any thread.
class NamespacedSecretStore final : public EnumerableSecretStore {
 public:
  NamespacedSecretStore(EnumerableSecretStore& base, std::string nameSpace)
      : base_(base), nameSpace_(std::move(nameSpace)) {}

  void store(std::string_view account, const base::SecretText& value) override;
  base::SecretText read(std::string_view account) override;
  void remove(std::string_view account) override;
  /// Those of this name space only, without its prefix.
  std::vector<std::string> accounts() override;

  void setFailure(std::optional<std::string> failure) {
    const base::Lock lock(mutex_);
    failure_ = std::move(failure);
  }

 private:
  std::string accountFor(std::string_view account) const;

  EnumerableSecretStore& base_;
  // Constant after construction.
  const std::string nameSpace_;
  // Guarded. mutex_ is a leaf.
  mutable base::Mutex mutex_;
  std::optional<std::string> failure_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::vault
