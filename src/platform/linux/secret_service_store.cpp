#include "platform/linux/secret_service_store.h"

#include <algorithm>

#include "base/unicode.h"

namespace sorvane::platform {

using base::Lock;
using vault::SecretStoreError;

namespace {

using Found = DbusSecretService::Found;

/// The items with these attributes, unlocked. Some keyrings show nothing at all of what is locked, so that an empty
/// answer counts only when the keyring is open.
DbusSecretService::Paths find(DbusSecretService& bus, const DbusSecretService::Attributes& attributes) {
  Found found = bus.search(attributes);
  if (!found.locked.empty()) {
    bus.unlock(found.locked);
    found = bus.search(attributes);
  } else if (found.unlocked.empty()) {
    const std::string collection = bus.defaultCollection();
    if (collection.empty() || !bus.isLocked(collection)) return {};
    bus.unlock({collection});
    found = bus.search(attributes);
  }
  if (!found.locked.empty()) {
    throw SecretStoreError::permissionDenied("the keyring is locked; unlock it and try again");
  }
  return found.unlocked;
}

}  // namespace

template <typename Call>
auto SecretServiceStore::callingTwice(const Call& call) {
  const bool wasConnected = bus_ != nullptr;
  try {
    if (!bus_) bus_ = std::make_unique<DbusSecretService>(promptLimit_);
    return call(*bus_);
  } catch (const SecretStoreError&) {
    if (!bus_ || !bus_->isLost()) throw;
    bus_.reset();
    if (!wasConnected) throw;
  }
  // The keyring or the bus was started anew since the last call. Every operation here may be repeated.
  bus_ = std::make_unique<DbusSecretService>(promptLimit_);
  return call(*bus_);
}

template <typename Call>
auto SecretServiceStore::calling(const Call& call) {
  const std::uint64_t seen = refusals_.load();
  const Lock lock(mutex_);
  if (refusals_.load() != seen && lastRefusal_) throw SecretStoreError(*lastRefusal_);
  try {
    return callingTwice(call);
  } catch (const SecretStoreError& error) {
    if (error.kind() == SecretStoreError::Case::permissionDenied) {
      lastRefusal_ = error;
      ++refusals_;
    }
    throw;
  }
}

SecretServiceStore::Attributes SecretServiceStore::attributesFor(std::string_view account) const {
  // A text on the bus is UTF-8 and ends at the first zero byte.
  if (!base::isUtf8(account) || account.find('\0') != std::string_view::npos) {
    throw SecretStoreError::backend("an account name that is not plain text cannot be kept in the Secret Service");
  }
  return {{"service", service_}, {"account", std::string(account)}};
}

void SecretServiceStore::store(std::string_view account, const base::SecretText& value) {
  if (value.size() > vault::kMaxValueBytes) throw SecretStoreError::tooLarge(value.size());
  const Attributes attributes = attributesFor(account);
  calling([&](DbusSecretService& bus) {
    const Paths items = find(bus, attributes);
    if (items.empty()) {
      std::string collection = bus.defaultCollection();
      if (collection.empty()) collection = bus.makeDefaultCollection();
      if (bus.isLocked(collection)) bus.unlock({collection});
      bus.createItem(collection, {"sorvane " + attributes.at("account"), attributes}, value);
      return;
    }
    bus.setSecret(items.front(), value);
    // Copies that another program made would answer in its place.
    for (auto item = items.begin() + 1; item != items.end(); ++item) bus.remove(*item);
  });
}

base::SecretText SecretServiceStore::read(std::string_view account) {
  const Attributes attributes = attributesFor(account);
  return calling([&](DbusSecretService& bus) {
    const Paths items = find(bus, attributes);
    if (items.empty()) throw SecretStoreError::notFound();
    auto value = bus.secretOf(items.front());
    if (!base::isUtf8(value.view())) throw SecretStoreError::backend("stored value is not valid UTF-8");
    return value;
  });
}

void SecretServiceStore::remove(std::string_view account) {
  const Attributes attributes = attributesFor(account);
  calling([&](DbusSecretService& bus) {
    for (const std::string& item : find(bus, attributes)) bus.remove(item);
  });
}

std::vector<std::string> SecretServiceStore::accounts() {
  return calling([&](DbusSecretService& bus) {
    std::vector<std::string> names;
    for (const std::string& item : find(bus, {{"service", service_}})) {
      const Attributes attributes = bus.attributesOf(item);
      if (const auto account = attributes.find("account"); account != attributes.end())
        names.push_back(account->second);
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
  });
}

}  // namespace sorvane::platform
