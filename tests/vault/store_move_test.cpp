#include "vault/store_move.h"

#include <gtest/gtest.h>

#include <map>

#include "support/doubles.h"
#include "vault/accounts.h"

namespace sorvane::test {
namespace {

using vault::finishStoreMove;
using vault::moveStore;
using vault::SecretStoreError;
using vault::StoreMoveOutcome;
using Items = std::map<std::string, std::string>;

/// Works until the budget that both stores share is used up. The last call fails before or after it took effect, as a
/// refused and a killed call do.
struct Budget {
  enum class LastCall { refused, done };
  int left;
  LastCall last;
  /// True when the call is to fail once it was made.
  bool spend() {
    if (--left > 0) return false;
    if (left < 0 || last == LastCall::refused) throw SecretStoreError::backend("the disk is full");
    return true;
  }
};

class FailingStore final : public vault::EnumerableSecretStore {
 public:
  FailingStore(vault::EnumerableSecretStore& base, Budget& budget) : base_(base), budget_(budget) {}
  void store(std::string_view account, const base::SecretText& value) override {
    spending([&] { base_.store(account, value); });
  }
  base::SecretText read(std::string_view account) override {
    return spending([&] { return base_.read(account); });
  }
  void remove(std::string_view account) override {
    spending([&] { base_.remove(account); });
  }
  std::vector<std::string> accounts() override {
    return spending([&] { return base_.accounts(); });
  }

 private:
  template <typename Call>
  std::invoke_result_t<Call> spending(const Call& call) {
    const bool failsAfterwards = budget_.spend();
    if constexpr (std::is_void_v<decltype(call())>) {
      call();
      if (failsAfterwards) throw SecretStoreError::backend("the disk is full");
    } else {
      auto result = call();
      if (failsAfterwards) throw SecretStoreError::backend("the disk is full");
      return result;
    }
  }
  vault::EnumerableSecretStore& base_;
  Budget& budget_;
};

const Items kItems{{"sec_1#v1", "one"}, {"sec_1#v2", ""}, {std::string(vault::kMetadataKeyAccount), "key"}};

void fill(vault::SecretStore& store, const Items& items) {
  for (const auto& [account, value] : items) store.store(account, base::SecretText(value));
}

Items itemsOf(vault::EnumerableSecretStore& store) {
  Items items;
  for (const std::string& account : store.accounts()) {
    if (account != vault::kKeychainMovedAccount) items[account] = store.read(account).view();
  }
  return items;
}

bool marked(MemorySecretStore& store) {
  for (const std::string& account : store.accounts()) {
    if (account == vault::kKeychainMovedAccount) return true;
  }
  return false;
}

std::string sentenceOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const vault::StoreMoveError& error) {
    return error.sentence();
  }
  return "";
}

/// Moves with the store failing at call `n`, starts again as the application would, and checks that at every moment the
/// store in use is whole. False when `n` is beyond the last call.
bool survivesAFailureAt(int n, Budget::LastCall last) {
  MemorySecretStore from, to;
  fill(from, kItems);
  from.store(vault::kKeychainMovedAccount, base::SecretText("of an earlier move"));
  Budget budget{n, last};
  FailingStore failingFrom(from, budget), failingTo(to, budget);
  bool adopted = false;
  const vault::StoreMoveSteps steps{{}, [&] { adopted = true; }};
  const std::string sentence = sentenceOf([&] { moveStore(failingFrom, failingTo, steps); });
  EXPECT_EQ(itemsOf(adopted ? to : from), kItems) << n;
  const bool failed = !sentence.empty();
  if (failed) {
    EXPECT_EQ(sentence, vault::storeMoveFailure("credential store error: the disk is full"));
    if (adopted) {
      // The new store is in use by now: what changed there must not be undone by what is left of the old one.
      fill(to, {{"sec_1#v1", "changed since"}});
      EXPECT_EQ(finishStoreMove(from, to, {}), StoreMoveOutcome::moved);
      EXPECT_EQ(to.read("sec_1#v1").view(), "changed since");
      fill(to, kItems);
    } else {
      EXPECT_EQ(moveStore(from, to, steps), StoreMoveOutcome::moved);
    }
  }
  EXPECT_EQ(itemsOf(to), kItems) << n;
  EXPECT_TRUE(from.accounts().empty() && marked(to)) << n;
  return failed;
}

TEST(StoreMove, losesNothingWhicheverCallFailsOrIsTheLastBeforeAKill) {
  for (const auto last : {Budget::LastCall::refused, Budget::LastCall::done}) {
    int calls = 0;
    while (survivesAFailureAt(calls + 1, last)) ++calls;
    EXPECT_GT(calls, 20);
  }
}

TEST(StoreMove, stopsBetweenItemsAndIsRunAgain) {
  for (std::size_t stopAt = 0; stopAt <= 2 * kItems.size(); ++stopAt) {
    MemorySecretStore from, to;
    fill(from, kItems);
    bool adopted = false;
    const vault::StoreMoveSteps steps{[&](std::size_t done, std::size_t total) {
                                        EXPECT_EQ(total, 2 * kItems.size());
                                        return done < stopAt;
                                      },
                                      [&] { adopted = true; }};
    const auto outcome = moveStore(from, to, steps);
    EXPECT_EQ(itemsOf(adopted ? to : from), kItems);
    EXPECT_EQ(adopted, outcome != StoreMoveOutcome::stopped);
    EXPECT_EQ(outcome == StoreMoveOutcome::moved, stopAt == 2 * kItems.size()) << stopAt;
  }
}

TEST(StoreMove, repeatsWhatChangedInTheOldStoreAfterAnAttemptThatWasGivenUp) {
  MemorySecretStore from, to;
  fill(from, kItems);
  EXPECT_NE(sentenceOf([&] {
              moveStore(from, to, {{}, [] { throw SecretStoreError::backend("not recorded"); }});
            }),
            "");
  EXPECT_TRUE(marked(to));
  from.remove("sec_1#v1");
  fill(from, {{"sec_1#v2", "newer"}, {"sec_2#v1", "added"}});
  const Items expected = itemsOf(from);
  EXPECT_EQ(moveStore(from, to, {}), StoreMoveOutcome::moved);
  EXPECT_EQ(itemsOf(to), expected);
}

/// Says that it stored a value and keeps another.
class ForgetfulStore final : public vault::EnumerableSecretStore {
 public:
  void store(std::string_view account, const base::SecretText& value) override {
    const bool cuts = account == "sec_1#v1";
    base_.store(account, base::SecretText(cuts ? value.view().substr(1) : value.view()));
  }
  base::SecretText read(std::string_view account) override { return base_.read(account); }
  void remove(std::string_view account) override { base_.remove(account); }
  std::vector<std::string> accounts() override { return base_.accounts(); }

 private:
  MemorySecretStore base_;
};

TEST(StoreMove, removesNothingWhenAnItemIsReadBackDifferently) {
  MemorySecretStore from;
  ForgetfulStore to;
  fill(from, kItems);
  EXPECT_EQ(sentenceOf([&] {
              moveStore(from, to, {{}, [] { ADD_FAILURE() << "adopted"; }});
            }),
            vault::storeMoveFailure("credential store error: the item sec_1#v1 was read back differently"));
  EXPECT_EQ(itemsOf(from), kItems);
}

TEST(StoreMove, refusesWhatWouldLoseItems) {
  MemorySecretStore from, other;
  fill(from, kItems);
  fill(other, {{std::string(vault::kMetadataKeyAccount), "another key"}, {"sec_9#v1", "theirs"}});
  const Items theirs = itemsOf(other);
  EXPECT_EQ(sentenceOf([&] { moveStore(from, other, {}); }),
            vault::storeMoveFailure("credential store error: the new store already holds the keys of another vault"));
  EXPECT_EQ(itemsOf(other), theirs);
  EXPECT_EQ(sentenceOf([&] { moveStore(from, from, {}); }),
            vault::storeMoveFailure("credential store error: the old and the new store are one and the same"));
  EXPECT_NE(sentenceOf([&] { finishStoreMove(from, other, {}); }), "");
  EXPECT_EQ(itemsOf(from), kItems);
}

}  // namespace
}  // namespace sorvane::test
