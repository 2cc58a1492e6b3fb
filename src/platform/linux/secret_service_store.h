#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "base/mutex.h"
#include "platform/linux/dbus_secret_service.h"
#include "vault/secret_store.h"

namespace sorvane::platform {

/// How long a question of the keyring may stay unanswered.
inline constexpr std::chrono::milliseconds kKeyringPatience{120000};

/// SecretServiceStore keeps values in the desktop's keyring, one item an account with the attributes "service" and
/// "account". It connects at the first call, and again at the next call after the bus or the keyring went away. A
/// locked keyring asks the person, for at most `promptLimit`; a call that waited for its turn meanwhile shares the
/// refusal instead of asking once more. SecretStoreError tells apart: locked, dismissed and unanswered
/// (permissionDenied, each with its own message), unavailable (backend) and not found. Calls go out one at a time,
/// since some keyrings fail calls that cross; any thread.
class SecretServiceStore final : public vault::EnumerableSecretStore {
 public:
  explicit SecretServiceStore(std::string service = "app.sorvane",
                              std::chrono::milliseconds promptLimit = kKeyringPatience)
      : service_(std::move(service)), promptLimit_(promptLimit) {}

  void store(std::string_view account, const base::SecretText& value) override;
  base::SecretText read(std::string_view account) override;
  void remove(std::string_view account) override;
  std::vector<std::string> accounts() override;

 private:
  using Paths = DbusSecretService::Paths;
  using Attributes = DbusSecretService::Attributes;

  Attributes attributesFor(std::string_view account) const;
  template <typename Call>
  auto calling(const Call& call) EXCLUDES(mutex_);
  template <typename Call>
  auto callingTwice(const Call& call) REQUIRES(mutex_);

  // Constant after construction.
  const std::string service_;
  const std::chrono::milliseconds promptLimit_;
  // Own synchronisation: how often the person or the keyring said no.
  std::atomic<std::uint64_t> refusals_{0};
  // Guarded. Held across calls on the bus, which go out one at a time.
  base::Mutex mutex_;
  std::unique_ptr<DbusSecretService> bus_ GUARDED_BY(mutex_);
  std::optional<vault::SecretStoreError> lastRefusal_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::platform
