#include "vault/domain_move.h"

#include <gtest/gtest.h>

#include "apple/fake/keychain.h"
#include "platform/macos/keychain_secret_store.h"
#include "vault/accounts.h"

namespace sorvane::test {
namespace {

using apple::FakeKeychain;
using platform::KeychainSecretStore;
using vault::moveDomain;
using vault::StoreMoveOutcome;
using Domain = KeychainSecretStore::Domain;
using Items = std::map<std::string, std::string>;

const std::string kKey(vault::kMetadataKeyAccount);
const std::string kMarker(vault::kKeychainMovedAccount);
const Items kItems{{"sec_1#v1", "one"}, {"sec_1#v2", ""}, {"__sorvane_sealed_local-proxy__", "sealed"}, {kKey, "key"}};

const std::string kRefused =
    vault::storeMoveFailure("credential store access denied: User interaction is not allowed.");
const std::string kUnavailable = vault::storeMoveFailure("credential store error: No keychain is available.");

class DomainMove : public ::testing::Test {
 protected:
  FakeKeychain keychain_;
  // Stands in for each start of the program anew: a store remembers nothing.
  KeychainSecretStore old_{"app.sorvane", Domain::legacy()};
  KeychainSecretStore fresh_{"app.sorvane", Domain::dataProtection("TEAM.app.sorvane")};

  static void fill(vault::SecretStore& store, const Items& items) {
    for (const auto& [account, value] : items) store.store(account, base::SecretText(value));
  }
  Items in(FakeKeychain::Domain domain) const {
    Items found;
    for (const auto& item : keychain_.items(domain)) found[item.account] = item.value;
    return found;
  }
  Items oldItems() const { return in(FakeKeychain::Domain::legacy); }
  /// Without the marker.
  Items freshItems() const {
    Items found = in(FakeKeychain::Domain::dataProtection);
    found.erase(kMarker);
    return found;
  }
  bool marked() const { return in(FakeKeychain::Domain::dataProtection).contains(kMarker); }

  StoreMoveOutcome start() { return moveDomain(old_, fresh_, {}); }
  /// The sentence of the failure, empty when there was none.
  std::string startInWords() {
    try {
      start();
    } catch (const base::Error& error) {
      return error.sentence();
    }
    return "";
  }

  /// One call fails; the program dies at a call, which then and later has no effect; or right after it had its effect.
  enum class Fault { once, dies, diesAfter };
  /// A first start with the fault at its call `at`, and the start after it. False when there is no such call.
  bool survives(Fault fault, int at);
};

bool DomainMove::survives(Fault fault, int at) {
  for (const auto& [account, value] : in(FakeKeychain::Domain::dataProtection)) fresh_.remove(account);
  fill(old_, kItems);
  const int hit = keychain_.calls() + at;
  keychain_.before = [=](int number) -> OSStatus {
    const bool fails = fault == Fault::once ? number == hit : number >= hit + (fault == Fault::diesAfter ? 1 : 0);
    return fails ? errSecInteractionNotAllowed : errSecSuccess;
  };
  keychain_.after = [=](int number) -> OSStatus {
    return fault == Fault::diesAfter && number == hit ? errSecNotAvailable : errSecSuccess;
  };
  const std::string sentence = startInWords();
  keychain_.before = keychain_.after = nullptr;
  const bool reached = keychain_.calls() >= hit;
  // With the marker the new domain is whole, without it the old one is, and the start fails.
  const bool inUse = marked();
  EXPECT_EQ(inUse ? freshItems() : oldItems(), kItems) << at;
  EXPECT_TRUE(inUse || sentence == kRefused || sentence == kUnavailable) << at << sentence;
  EXPECT_TRUE(!inUse || oldItems().empty() || oldItems().contains(kKey)) << at;
  // The next start. What changed in the new domain meanwhile must not be undone.
  Items expected = kItems;
  if (inUse) {
    expected["sec_1#v1"] = "changed since";
    fill(fresh_, expected);
  }
  EXPECT_EQ(start(), StoreMoveOutcome::moved) << at;
  EXPECT_EQ(freshItems(), expected) << at;
  EXPECT_TRUE(oldItems().empty() && marked()) << at;
  return reached;
}

TEST_F(DomainMove, movesAtTheFirstStartAndReadsTheOldDomainNoMore) {
  fill(old_, kItems);
  EXPECT_EQ(start(), StoreMoveOutcome::moved);
  EXPECT_EQ(freshItems(), kItems);
  EXPECT_TRUE(marked() && oldItems().empty());
  keychain_.takeCalls();
  EXPECT_EQ(start(), StoreMoveOutcome::moved);
  const auto calls = keychain_.takeCalls();
  ASSERT_EQ(calls.size(), 2U);
  for (const auto& call : calls) EXPECT_EQ(call.function, "SecItemCopyMatching");
  // Listing asks nobody, reading a value may.
  EXPECT_FALSE(calls[1].query.contains("returnData"));
}

TEST_F(DomainMove, marksAnEmptyDomainAndStillTakesWhatTurnsUpThere) {
  EXPECT_EQ(start(), StoreMoveOutcome::moved);
  EXPECT_TRUE(marked());
  fill(old_, kItems);
  EXPECT_EQ(start(), StoreMoveOutcome::moved);
  EXPECT_EQ(freshItems(), kItems);
  EXPECT_TRUE(oldItems().empty());
}

TEST_F(DomainMove, takesNothingForANewVaultThatAnotherProgramPutThere) {
  fill(old_, kItems);
  vault::beginInNewDomain(fresh_);
  EXPECT_TRUE(marked() && freshItems().empty());
  fresh_.store(kKey, base::SecretText("the new vault's"));
  const Items own{{kKey, "the new vault's"}};
  EXPECT_EQ(start(), StoreMoveOutcome::moved);
  EXPECT_EQ(freshItems(), own);
  EXPECT_EQ(oldItems(), kItems);
  // Once more changes nothing, and what stands in the way is said.
  vault::beginInNewDomain(fresh_);
  EXPECT_EQ(freshItems(), own);
  keychain_.before = [](int) -> OSStatus { return errSecInteractionNotAllowed; };
  EXPECT_THROW(vault::beginInNewDomain(fresh_), vault::StoreMoveError);
}

TEST_F(DomainMove, leavesAnotherVaultsItemsAlone) {
  const Items theirs{{kKey, "another key"}, {"sec_1#v1", "theirs"}};
  const Items keyless{{"sec_1#v1", "theirs"}};
  fill(fresh_, kItems);
  fresh_.store(kMarker, base::SecretText("word"));
  for (const Items& items : {theirs, keyless}) {
    for (const auto& [account, value] : oldItems()) old_.remove(account);
    fill(old_, items);
    EXPECT_EQ(start(), StoreMoveOutcome::moved);
    EXPECT_EQ(oldItems(), items);
    EXPECT_EQ(freshItems(), kItems);
  }
  // Nor are they mixed where nothing says which vault is in use.
  fill(old_, theirs);
  fresh_.remove(kMarker);
  EXPECT_EQ(
      startInWords(),
      "sorvane could not finish moving its keys into the protected Keychain (credential store error: the new store "
      "already holds the keys of another vault). Quit and reopen sorvane. If macOS asks to allow access, choose "
      "Always Allow.");
  EXPECT_EQ(oldItems(), theirs);
  EXPECT_EQ(freshItems(), kItems);
}

TEST_F(DomainMove, losesNothingWhateverCallFailsOrIsTheLastBeforeAKill) {
  for (const Fault fault : {Fault::once, Fault::dies, Fault::diesAfter}) {
    int calls = 0;
    while (survives(fault, calls + 1)) ++calls;
    EXPECT_GT(calls, 30);
  }
}

TEST_F(DomainMove, holdsUpNoStartForWhatIsLeftOfTheOldDomain) {
  fill(old_, kItems);
  fill(fresh_, kItems);
  fresh_.store(kMarker, base::SecretText("word"));
  const int calls = keychain_.calls();
  keychain_.before = [=](int number) -> OSStatus {
    return number > calls + 1 ? errSecInteractionNotAllowed : errSecSuccess;
  };
  EXPECT_EQ(start(), StoreMoveOutcome::remainderLeft);
  keychain_.before = nullptr;
  EXPECT_EQ(oldItems(), kItems);
}

}  // namespace
}  // namespace sorvane::test
