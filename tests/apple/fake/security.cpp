#include <Security/Security.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>

#include "apple/fake/keychain.h"
#include "apple/fake/objects.h"

using namespace sorvane::test::apple;
using Item = FakeKeychain::Item;
using Domain = FakeKeychain::Domain;

namespace {

CFStringRef constant(const char* text) {
  auto* const string = new String(text);
  string->makeConstant();
  return refOf<CFStringRef>(string);
}

struct State {
  std::mutex mutex;
  FakeKeychain* keychain = nullptr;
  std::vector<Item> items;
  std::vector<ItemCall> calls;
  int count = 0;
} state;

std::string worded(const Object& value) {
  if (&value == &objectOf(kCFBooleanTrue)) return "true";
  if (&value == &objectOf(kCFBooleanFalse)) return "false";
  if (value.kind() == Object::Kind::string) return static_cast<const String&>(value).bytes;
  const Data& data = as<Data>(&value);
  return {reinterpret_cast<const char*>(data.bytes()), data.size()};
}

std::map<std::string, std::string> worded(CFDictionaryRef dictionary) {
  std::map<std::string, std::string> words;
  for (const auto& [key, value] : as<Dictionary>(dictionary).entries()) words[as<String>(key).bytes] = worded(*value);
  return words;
}

}  // namespace

extern "C" {

const CFStringRef kSecClass = constant("class");
const CFStringRef kSecClassGenericPassword = constant("genericPassword");
const CFStringRef kSecAttrService = constant("service");
const CFStringRef kSecAttrAccount = constant("account");
const CFStringRef kSecAttrAccessGroup = constant("group");
const CFStringRef kSecAttrAccessible = constant("accessible");
const CFStringRef kSecAttrAccessibleWhenUnlockedThisDeviceOnly = constant("whenUnlockedThisDeviceOnly");
const CFStringRef kSecMatchLimit = constant("limit");
const CFStringRef kSecMatchLimitOne = constant("one");
const CFStringRef kSecMatchLimitAll = constant("all");
const CFStringRef kSecReturnAttributes = constant("returnAttributes");
const CFStringRef kSecReturnData = constant("returnData");
const CFStringRef kSecUseDataProtectionKeychain = constant("dataProtection");
const CFStringRef kSecValueData = constant("data");

}  // extern "C"

namespace {

/// A call of an item function, read.
struct Query {
  explicit Query(CFDictionaryRef dictionary) : words(worded(dictionary)) {}
  std::optional<std::string> word(CFStringRef name) const {
    const auto found = words.find(as<String>(name).bytes);
    return found == words.end() ? std::nullopt : std::optional(found->second);
  }
  bool reaches(Domain domain) const {
    const auto said = word(kSecUseDataProtectionKeychain);
    return !said || (*said == "true") == (domain == Domain::dataProtection);
  }
  bool matches(const Item& item) const {
    const auto same = [&](CFStringRef name, const std::string& value) { return word(name).value_or(value) == value; };
    return reaches(item.domain) && same(kSecAttrService, item.service) && same(kSecAttrAccount, item.account) &&
           (item.domain == Domain::legacy || same(kSecAttrAccessGroup, item.group)) &&
           same(kSecAttrAccessible, item.accessible);
  }
  /// What is wrong with the call whatever the Keychain holds.
  OSStatus fault(std::initializer_list<CFStringRef> known) const {
    std::map<std::string, std::string> left = words;
    for (const CFStringRef name :
         {kSecClass, kSecAttrService, kSecAttrAccount, kSecAttrAccessGroup, kSecUseDataProtectionKeychain}) {
      left.erase(as<String>(name).bytes);
    }
    for (const CFStringRef name : known) left.erase(as<String>(name).bytes);
    if (!left.empty() || word(kSecClass) != "genericPassword") return errSecParam;
    // Without a group the Keychain means the first that the program is signed for.
    const auto& groups = state.keychain->groups;
    const auto group = word(kSecAttrAccessGroup);
    const bool signedFor = state.keychain->hasGroups && !groups.empty() &&
                           (!group || std::find(groups.begin(), groups.end(), *group) != groups.end());
    if (word(kSecUseDataProtectionKeychain) == "true" && !signedFor) return errSecMissingEntitlement;
    return errSecSuccess;
  }
  std::map<std::string, std::string> words;
};

std::vector<Item*> found(const Query& query) {
  std::vector<Item*> matching;
  for (Item& item : state.items) {
    if (query.matches(item)) matching.push_back(&item);
  }
  return matching;
}

/// Runs a call under the lock, with what a test puts before and after it.
template <typename Call>
OSStatus calling(ItemCall record, const Call& call) {
  const std::lock_guard lock(state.mutex);
  if (state.keychain == nullptr) std::abort();
  state.calls.push_back(std::move(record));
  const int number = ++state.count;
  if (state.keychain->before) {
    if (const OSStatus status = state.keychain->before(number); status != errSecSuccess) return status;
  }
  const OSStatus status = call();
  if (status != errSecSuccess || !state.keychain->after) return status;
  return state.keychain->after(number);
}

Item itemFrom(const Query& query) {
  Item item;
  item.domain = query.word(kSecUseDataProtectionKeychain) == "true" ? Domain::dataProtection : Domain::legacy;
  item.service = query.word(kSecAttrService).value_or("");
  item.account = query.word(kSecAttrAccount).value_or("");
  if (item.domain == Domain::dataProtection) {
    item.group = query.word(kSecAttrAccessGroup).value_or(state.keychain->groups.front());
  }
  item.accessible = query.word(kSecAttrAccessible).value_or("");
  item.value = query.word(kSecValueData).value_or("");
  return item;
}

bool sameItem(const Item& one, const Item& other) {
  return one.domain == other.domain && one.service == other.service && one.account == other.account &&
         one.group == other.group;
}

Object* attributesOf(const Item& item) {
  auto* const attributes = new Dictionary;
  const auto set = [&](CFStringRef name, const std::string& value) {
    auto* const text = new String(value);
    attributes->set(objectOf(name), *text);
    text->release();
  };
  set(kSecAttrService, item.service);
  set(kSecAttrAccount, item.account);
  return attributes;
}

}  // namespace

extern "C" {

OSStatus SecItemAdd(CFDictionaryRef attributes, CFTypeRef* result) {
  const Query query(attributes);
  return calling({"SecItemAdd", query.words, {}}, [&]() -> OSStatus {
    if (const OSStatus fault = query.fault({kSecAttrAccessible, kSecValueData}); fault != errSecSuccess) return fault;
    if (result != nullptr) return errSecParam;
    Item added = itemFrom(query);
    for (const Item& item : state.items) {
      if (sameItem(item, added)) return errSecDuplicateItem;
    }
    state.items.push_back(std::move(added));
    return errSecSuccess;
  });
}

OSStatus SecItemCopyMatching(CFDictionaryRef dictionary, CFTypeRef* result) {
  const Query query(dictionary);
  return calling({"SecItemCopyMatching", query.words, {}}, [&]() -> OSStatus {
    const OSStatus fault = query.fault({kSecMatchLimit, kSecReturnAttributes, kSecReturnData});
    if (fault != errSecSuccess) return fault;
    const bool all = query.word(kSecMatchLimit) == "all";
    // The values of many items are not given at once.
    if ((query.word(kSecReturnData) == "true") == all) return errSecParam;
    const std::vector<Item*> matching = found(query);
    if (matching.empty()) return errSecItemNotFound;
    if (state.keychain->answer) {
      *result = state.keychain->answer();
      return errSecSuccess;
    }
    if (!all) {
      *result = refOf<CFTypeRef>(new Data(matching.front()->value));
      return errSecSuccess;
    }
    std::vector<Object*> items;
    for (const Item* const item : matching) items.push_back(attributesOf(*item));
    *result = refOf<CFTypeRef>(new Array(std::move(items)));
    return errSecSuccess;
  });
}

OSStatus SecItemUpdate(CFDictionaryRef dictionary, CFDictionaryRef attributesToUpdate) {
  const Query query(dictionary);
  const auto change = worded(attributesToUpdate);
  return calling({"SecItemUpdate", query.words, change}, [&]() -> OSStatus {
    if (const OSStatus fault = query.fault({}); fault != errSecSuccess) return fault;
    const std::vector<Item*> matching = found(query);
    if (const auto meanwhile = std::exchange(state.keychain->meanwhile, nullptr)) meanwhile();
    if (matching.empty()) return errSecItemNotFound;
    for (Item* const item : matching) item->value = change.at(as<String>(kSecValueData).bytes);
    return errSecSuccess;
  });
}

OSStatus SecItemDelete(CFDictionaryRef dictionary) {
  const Query query(dictionary);
  return calling({"SecItemDelete", query.words, {}}, [&]() -> OSStatus {
    if (const OSStatus fault = query.fault({}); fault != errSecSuccess) return fault;
    const auto gone = std::erase_if(state.items, [&](const Item& item) { return query.matches(item); });
    return gone == 0 ? OSStatus{errSecItemNotFound} : OSStatus{errSecSuccess};
  });
}

CFStringRef SecCopyErrorMessageString(OSStatus status, void*) {
  static const std::map<OSStatus, const char*> texts{
      {errSecAuthFailed, "The user name or passphrase you entered is not correct."},
      {errSecInteractionNotAllowed, "User interaction is not allowed."},
      {errSecMissingEntitlement, "A required entitlement isn't present."},
      {errSecNotAvailable, "No keychain is available."},
      {errSecUserCanceled, "User canceled the operation."},
  };
  const auto text = texts.find(status);
  return text == texts.end() ? nullptr : refOf<CFStringRef>(new String(text->second));
}

SecTaskRef SecTaskCreateFromSelf(CFAllocatorRef) {
  return reinterpret_cast<SecTaskRef>(new Task);
}

CFTypeRef SecTaskCopyValueForEntitlement(SecTaskRef task, CFStringRef entitlement, CFErrorRef*) {
  as<Task>(task);
  if (as<String>(entitlement).bytes != "keychain-access-groups" || !state.keychain->hasGroups) return nullptr;
  std::vector<Object*> groups;
  for (const std::string& group : state.keychain->groups) groups.push_back(new String(group));
  return refOf<CFTypeRef>(new Array(std::move(groups)));
}

}  // extern "C"

namespace sorvane::test::apple {

FakeKeychain::FakeKeychain() {
  if (state.keychain != nullptr) std::abort();
  state.items.clear();
  state.calls.clear();
  state.count = 0;
  state.keychain = this;
}

FakeKeychain::~FakeKeychain() {
  state.keychain = nullptr;
  EXPECT_EQ(liveObjects(), 0) << "objects were not released";
}

void FakeKeychain::put(Item item) {
  std::erase_if(state.items, [&](const Item& other) { return sameItem(item, other); });
  state.items.push_back(std::move(item));
}

std::vector<Item> FakeKeychain::items(Domain domain) const {
  std::vector<Item> found;
  for (const Item& item : state.items) {
    if (item.domain == domain) found.push_back(item);
  }
  return found;
}

int FakeKeychain::calls() const {
  return state.count;
}

std::vector<ItemCall> FakeKeychain::takeCalls() {
  return std::exchange(state.calls, {});
}

}  // namespace sorvane::test::apple
