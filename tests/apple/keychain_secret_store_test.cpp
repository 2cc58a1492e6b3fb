#include "platform/macos/keychain_secret_store.h"

#include <gtest/gtest.h>

#include "apple/fake/keychain.h"
#include "apple/fake/objects.h"
#include "platform/macos/access_group.h"
#include "support/secret_store_contract.h"

namespace sorvane::test {

using apple::FakeKeychain;
using platform::KeychainSecretStore;
using Domain = KeychainSecretStore::Domain;

struct ProtectedKeychain {
  FakeKeychain keychain;
  std::unique_ptr<vault::EnumerableSecretStore> make() {
    return std::make_unique<KeychainSecretStore>("app.sorvane", Domain::dataProtection("TEAM.app.sorvane"));
  }
};
struct LegacyKeychain {
  FakeKeychain keychain;
  std::unique_ptr<vault::EnumerableSecretStore> make() {
    return std::make_unique<KeychainSecretStore>("app.sorvane", Domain::legacy());
  }
};
INSTANTIATE_TYPED_TEST_SUITE_P(DataProtection, SecretStoreContract, ProtectedKeychain);
INSTANTIATE_TYPED_TEST_SUITE_P(Legacy, SecretStoreContract, LegacyKeychain);

namespace {

class KeychainStore : public ::testing::Test {
 protected:
  FakeKeychain keychain_;
  KeychainSecretStore store_{"app.sorvane", Domain::dataProtection("TEAM.app.sorvane")};
  KeychainSecretStore legacy_{"app.sorvane", Domain::legacy()};

  static std::string sentenceOf(const std::function<void()>& call) {
    try {
      call();
    } catch (const SecretStoreError& error) {
      return error.sentence();
    }
    return "";
  }
  /// A call of each kind, none of which finds its item.
  static void useEach(KeychainSecretStore& store) {
    store.store("a", base::SecretText("value"));
    EXPECT_EQ(store.read("a").view(), "value");
    EXPECT_EQ(store.accounts(), std::vector<std::string>{"a"});
    store.remove("a");
  }
};

using Words = std::map<std::string, std::string>;

Words with(Words words, const Words& more) {
  words.insert(more.begin(), more.end());
  return words;
}

TEST_F(KeychainStore, asksForExactlyItsItemsInBothDomains) {
  const Words service{{"class", "genericPassword"}, {"service", "app.sorvane"}};
  const Words protectedItems = with(service, {{"dataProtection", "true"}, {"group", "TEAM.app.sorvane"}});
  const Words legacyItems = with(service, {{"dataProtection", "false"}});
  for (const auto& [store, items] : {std::pair{&store_, protectedItems}, {&legacy_, legacyItems}}) {
    const Words item = with(items, {{"account", "a"}});
    useEach(*store);
    const auto calls = keychain_.takeCalls();
    ASSERT_EQ(calls.size(), 5U);
    EXPECT_EQ(calls[0].function, "SecItemUpdate");
    EXPECT_EQ(calls[0].query, item);
    EXPECT_EQ(calls[0].change, (Words{{"data", "value"}}));
    EXPECT_EQ(calls[1].function, "SecItemAdd");
    EXPECT_EQ(calls[1].query, with(item, {{"accessible", "whenUnlockedThisDeviceOnly"}, {"data", "value"}}));
    EXPECT_EQ(calls[2].query, with(item, {{"limit", "one"}, {"returnData", "true"}}));
    EXPECT_EQ(calls[3].query, with(items, {{"limit", "all"}, {"returnAttributes", "true"}}));
    EXPECT_EQ(calls[4].function, "SecItemDelete");
    EXPECT_EQ(calls[4].query, item);
  }
}

TEST_F(KeychainStore, leavesEveryItemAloneThatIsNotItsOwn) {
  const std::vector<FakeKeychain::Item> others{
      {FakeKeychain::Domain::dataProtection, "app.other", "a", "TEAM.app.sorvane", "", "of another service"},
      {FakeKeychain::Domain::dataProtection, "app.sorvane", "a", "TEAM.shared", "", "of another group"},
      {FakeKeychain::Domain::legacy, "app.sorvane", "a", "", "", "of the other domain"},
  };
  keychain_.groups.emplace_back("TEAM.shared");
  for (const auto& item : others) keychain_.put(item);
  useEach(store_);
  EXPECT_EQ(keychain_.items(FakeKeychain::Domain::dataProtection), (std::vector{others[0], others[1]}));
  EXPECT_EQ(keychain_.items(FakeKeychain::Domain::legacy), std::vector{others[2]});
  legacy_.remove("a");
  EXPECT_EQ(keychain_.items(FakeKeychain::Domain::dataProtection), (std::vector{others[0], others[1]}));
}

TEST_F(KeychainStore, saysOfEachStatusWhatTheSystemSays) {
  keychain_.put({FakeKeychain::Domain::dataProtection, "app.sorvane", "a", "TEAM.app.sorvane", "", "kept"});
  const std::pair<OSStatus, std::string> sentences[] = {
      {errSecItemNotFound, "secret value not found"},
      {errSecInteractionNotAllowed, "credential store access denied: User interaction is not allowed."},
      {errSecAuthFailed, "credential store access denied: The user name or passphrase you entered is not correct."},
      {errSecUserCanceled, "credential store access denied: User canceled the operation."},
      {errSecInDarkWake, "credential store access denied: OSStatus -25320"},
      {errSecInteractionRequired, "credential store access denied: OSStatus -25315"},
      {errSecNoAccessForItem, "credential store access denied: OSStatus -25243"},
      {errSecNotAvailable, "credential store error: No keychain is available."},
      {errSecMissingEntitlement, "credential store error: A required entitlement isn't present."},
      {-12345, "credential store error: OSStatus -12345"},
  };
  for (const auto& [status, sentence] : sentences) {
    keychain_.before = [status = status](int) { return status; };
    EXPECT_EQ(sentenceOf([&] { store_.read("a"); }), sentence);
    if (status == errSecItemNotFound) continue;
    EXPECT_EQ(sentenceOf([&] { store_.store("a", base::SecretText("new")); }), sentence);
    EXPECT_EQ(sentenceOf([&] { store_.remove("a"); }), sentence);
    EXPECT_EQ(sentenceOf([&] { store_.accounts(); }), sentence);
  }
  keychain_.before = nullptr;
  EXPECT_EQ(store_.read("a").view(), "kept");
}

TEST_F(KeychainStore, refusesBeforeAnyCallWhatNoItemCanHold) {
  EXPECT_EQ(sentenceOf([&] { store_.store("a", base::SecretText(std::string(4097, 'x'))); }),
            "secret value is 4097 bytes, exceeds maximum of 4096 bytes");
  for (const std::string& account : {std::string("a\0b", 3), std::string("\xff")}) {
    EXPECT_EQ(sentenceOf([&] { store_.read(account); }),
              "credential store error: an account name that is not plain text cannot be kept in the Keychain");
  }
  EXPECT_EQ(keychain_.calls(), 0);
}

TEST_F(KeychainStore, tellsValuesThatAreNoTextFromThoseThatAreEmpty) {
  keychain_.put({FakeKeychain::Domain::dataProtection, "app.sorvane", "a", "TEAM.app.sorvane", "", "\xc3("});
  EXPECT_EQ(sentenceOf([&] { store_.read("a"); }), "credential store error: stored value is not valid UTF-8");
  const std::string unexpected = "credential store error: the Keychain answered with something else than was asked for";
  keychain_.answer = [] { return static_cast<CFTypeRef>(nullptr); };
  EXPECT_TRUE(store_.read("a").empty());
  EXPECT_EQ(sentenceOf([&] { store_.accounts(); }), unexpected);
  keychain_.answer = [] { return CFRetain(kCFBooleanTrue); };
  EXPECT_EQ(sentenceOf([&] { store_.read("a"); }), unexpected);
  keychain_.answer = [] { return apple::refOf<CFTypeRef>(new apple::Array({new apple::String("no attributes")})); };
  EXPECT_EQ(sentenceOf([&] { store_.accounts(); }), unexpected);
  // An item of somebody else's, without an account.
  keychain_.answer = [] { return apple::refOf<CFTypeRef>(new apple::Array({new apple::Dictionary})); };
  EXPECT_TRUE(store_.accounts().empty());
}

TEST_F(KeychainStore, replacesAnItemThatSomebodyMadeMeanwhile) {
  keychain_.meanwhile = [&] {
    keychain_.put({FakeKeychain::Domain::dataProtection, "app.sorvane", "a", "TEAM.app.sorvane", "", "theirs"});
  };
  store_.store("a", base::SecretText("ours"));
  EXPECT_EQ(store_.read("a").view(), "ours");
}

TEST_F(KeychainStore, takesTheGroupThatTheProcessWasSignedForAndNoOther) {
  keychain_.groups = {"TEAM.app.other", "TEAM.app.sorvane", "OTHER.app.sorvane"};
  EXPECT_EQ(platform::ownAccessGroup("app.sorvane"), "TEAM.app.sorvane");
  keychain_.groups = {"app.sorvane"};
  EXPECT_EQ(platform::ownAccessGroup("app.sorvane"), "app.sorvane");
  keychain_.groups = {"TEAM.notapp.sorvane", "TEAM.app.sorvane.more", "TEAM.other.app.sorvane"};
  EXPECT_EQ(platform::ownAccessGroup("app.sorvane"), std::nullopt);
  keychain_.hasGroups = false;
  EXPECT_EQ(platform::ownAccessGroup("app.sorvane"), std::nullopt);
  EXPECT_EQ(sentenceOf([&] { store_.accounts(); }), "credential store error: A required entitlement isn't present.");
}

}  // namespace
}  // namespace sorvane::test
