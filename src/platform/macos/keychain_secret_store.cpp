#include "platform/macos/keychain_secret_store.h"

#include <Security/Security.h>

#include <algorithm>

#include "base/unicode.h"
#include "platform/macos/core_foundation.h"

namespace sorvane::platform {

using vault::SecretStoreError;

namespace {

/// The system's text for a status.
std::string textFor(OSStatus status) {
  const Owned<CFStringRef> text(SecCopyErrorMessageString(status, nullptr));
  return textOf(text.get()).value_or("OSStatus " + std::to_string(status));
}

[[noreturn]] void fail(OSStatus status) {
  switch (status) {
    case errSecItemNotFound:
      throw SecretStoreError::notFound();
    case errSecAuthFailed:
    case errSecInDarkWake:
    case errSecInteractionNotAllowed:
    case errSecInteractionRequired:
    case errSecNoAccessForItem:
    case errSecUserCanceled:
      throw SecretStoreError::permissionDenied(textFor(status));
    default:
      throw SecretStoreError::backend(textFor(status));
  }
}

void check(OSStatus status) {
  if (status != errSecSuccess) fail(status);
}

SecretStoreError unexpectedAnswer() {
  return SecretStoreError::backend("the Keychain answered with something else than was asked for");
}

/// What every item of the service in the domain is found by.
Attributes itemsOf(const std::string& service, const KeychainSecretStore::Domain& domain) {
  Attributes query;
  const auto name = stringOf(service);
  query.set(kSecClass, kSecClassGenericPassword).set(kSecAttrService, name.get());
  if (!domain.group()) {
    // Said rather than left out: a query that says nothing reaches the items of both domains.
    query.set(kSecUseDataProtectionKeychain, kCFBooleanFalse);
    return query;
  }
  const auto group = stringOf(*domain.group());
  query.set(kSecUseDataProtectionKeychain, kCFBooleanTrue).set(kSecAttrAccessGroup, group.get());
  return query;
}

Attributes itemOf(const std::string& service, const KeychainSecretStore::Domain& domain, std::string_view account) {
  const auto name = account.find('\0') == std::string_view::npos ? stringOf(account) : Owned<CFStringRef>();
  if (!name) throw SecretStoreError::backend("an account name that is not plain text cannot be kept in the Keychain");
  Attributes query = itemsOf(service, domain);
  query.set(kSecAttrAccount, name.get());
  return query;
}

/// The value as the Keychain takes it: over the value's own memory, so that no copy of ours stays behind. `value`
/// outlives it.
Owned<CFDataRef> dataOver(const base::SecretText& value) {
  static constexpr UInt8 kNothing = 0;
  const auto bytes = value.bytes();
  Owned<CFDataRef> data(CFDataCreateWithBytesNoCopy(kCFAllocatorDefault, bytes.empty() ? &kNothing : bytes.data(),
                                                    static_cast<CFIndex>(bytes.size()), kCFAllocatorNull));
  if (!data) throw SecretStoreError::backend("there is no memory left");
  return data;
}

}  // namespace

void KeychainSecretStore::store(std::string_view account, const base::SecretText& value) {
  if (value.size() > vault::kMaxValueBytes) throw SecretStoreError::tooLarge(value.size());
  const Attributes item = itemOf(service_, domain_, account);
  const auto data = dataOver(value);
  Attributes change;
  change.set(kSecValueData, data.get());
  OSStatus status = SecItemUpdate(item.get(), change.get());
  if (status == errSecItemNotFound) {
    Attributes added = itemOf(service_, domain_, account);
    added.set(kSecAttrAccessible, kSecAttrAccessibleWhenUnlockedThisDeviceOnly).set(kSecValueData, data.get());
    status = SecItemAdd(added.get(), nullptr);
    // Somebody else's call for this account came between.
    if (status == errSecDuplicateItem) status = SecItemUpdate(item.get(), change.get());
  }
  check(status);
}

base::SecretText KeychainSecretStore::read(std::string_view account) {
  Attributes query = itemOf(service_, domain_, account);
  query.set(kSecMatchLimit, kSecMatchLimitOne).set(kSecReturnData, kCFBooleanTrue);
  Owned<CFTypeRef> found;
  check(SecItemCopyMatching(query.get(), found.place()));
  // An item without any data has an empty value.
  if (!found) return {};
  const auto data = as<CFDataRef>(found.get(), CFDataGetTypeID);
  if (data == nullptr) throw unexpectedAnswer();
  base::SecretText value(std::string_view(reinterpret_cast<const char*>(CFDataGetBytePtr(data)),
                                          static_cast<std::size_t>(CFDataGetLength(data))));
  if (!base::isUtf8(value.view())) throw SecretStoreError::backend("stored value is not valid UTF-8");
  return value;
}

void KeychainSecretStore::remove(std::string_view account) {
  const OSStatus status = SecItemDelete(itemOf(service_, domain_, account).get());
  if (status != errSecItemNotFound) check(status);
}

std::vector<std::string> KeychainSecretStore::accounts() {
  Attributes query = itemsOf(service_, domain_);
  query.set(kSecMatchLimit, kSecMatchLimitAll).set(kSecReturnAttributes, kCFBooleanTrue);
  Owned<CFTypeRef> found;
  const OSStatus status = SecItemCopyMatching(query.get(), found.place());
  if (status == errSecItemNotFound) return {};
  check(status);
  const auto items = as<CFArrayRef>(found.get(), CFArrayGetTypeID);
  if (items == nullptr) throw unexpectedAnswer();
  std::vector<std::string> names;
  for (CFIndex index = 0; index < CFArrayGetCount(items); ++index) {
    const auto item = as<CFDictionaryRef>(CFArrayGetValueAtIndex(items, index), CFDictionaryGetTypeID);
    if (item == nullptr) throw unexpectedAnswer();
    // An item whose account is no text was not made by a store.
    if (auto name = textOf(CFDictionaryGetValue(item, kSecAttrAccount))) names.push_back(*std::move(name));
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace sorvane::platform
