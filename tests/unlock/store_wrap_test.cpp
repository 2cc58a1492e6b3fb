#include "unlock/store_wrap.h"

#include <gtest/gtest.h>

#include "support/doubles.h"
#include "unlock/store_door.h"
#include "unlock/unlock_error.h"

#include <future>

namespace sorvane::test {
namespace {

using namespace unlock;
using namespace std::chrono_literals;

StoreWrap fullWrap() {
  StoreWrap wrap;
  wrap.salt = base::Bytes(16, 0x01);
  wrap.cost = {65536, 3};
  wrap.key = base::Bytes(60, 0xFF);
  wrap.requirement = PassphraseRequirement::withSystem;
  wrap.followsSession = false;
  wrap.verifierSalt = base::Bytes(16, 0x02);
  wrap.newDatabase = true;
  wrap.failedAttempts = 4;
  wrap.lastFailure = std::chrono::sys_days{std::chrono::year{2026} / 11 / 21} + 9h;
  return wrap;
}

const std::string kFullText =
    R"({"format":1,"salt":"AQEBAQEBAQEBAQEBAQEBAQ==","memoryKiB":65536,"iterations":3,"key":")" + std::string(80, '/') +
    R"(","requirement":"withSystem","followsSession":false,"verifierSalt":"AgICAgICAgICAgICAgICAg==",)"
    R"("newDatabase":true,"keyLayInClear":false,"failedAttempts":4,"lastFailure":"2026-11-21T09:00:00Z"})";

TEST(StoreWrap, isWrittenInItsOrderAndReadBack) {
  EXPECT_EQ(encodeWrap(fullWrap()).view(), kFullText);
  const auto outcome = decodeWrap(kFullText);
  ASSERT_TRUE(std::holds_alternative<StoreWrap>(outcome));
  EXPECT_EQ(std::get<StoreWrap>(outcome), fullWrap());
}

TEST(StoreWrap, isRefusedBeforeAnythingIsDerivedOfIt) {
  const std::pair<std::string, std::string> changes[] = {
      {R"("format":1,)", ""},
      {R"("format":1)", R"("format":0)"},
      {R"("format":1)", R"("format":"1")"},
      {"AQEBAQEBAQEBAQEBAQEBAQ==", "AQEBAQEBAQEBAQEBAQEB"},
      {"AQEBAQEBAQEBAQEBAQEBAQ==", "AQEBAQEBAQEBAQEBAQEBAQEB"},
      {R"("memoryKiB":65536)", R"("memoryKiB":7)"},
      {R"("memoryKiB":65536)", R"("memoryKiB":1048577)"},
      {R"("memoryKiB":65536)", R"("memoryKiB":4295032832)"},
      {R"("iterations":3)", R"("iterations":0)"},
      {R"("iterations":3)", R"("iterations":11)"},
      {std::string(80, '/'), std::string(76, '/')},
      {R"("requirement":"withSystem")", R"("requirement":"off")"},
      {R"("requirement":"withSystem")", R"("requirement":null)"},
      {R"("followsSession":false,)", ""},
      {R"("newDatabase":true)", R"("newDatabase":1)"},
      {R"("keyLayInClear":false,)", ""},
      {R"("failedAttempts":4)", R"("failedAttempts":-1)"},
      {R"("failedAttempts":4)", R"("failedAttempts":9223372036854775808)"},
      {R"("lastFailure":"2026-11-21T09:00:00Z")", R"("lastFailure":null)"},
      {R"("lastFailure":"2026-11-21T09:00:00Z")", R"("lastFailure":"soon")"},
      {R"("failedAttempts":4)", R"("failedAttempts":4,"more":1)"},
      {R"("failedAttempts":4)", R"("failedAttempts":4,"failedAttempts":0)"},
      {"{", "["},
  };
  for (const auto& [from, to] : changes) {
    std::string text = kFullText;
    const auto at = text.find(from);
    ASSERT_NE(at, std::string::npos) << from;
    text.replace(at, from.size(), to);
    const auto outcome = decodeWrap(text);
    ASSERT_TRUE(std::holds_alternative<WrapRefusal>(outcome)) << text;
    EXPECT_EQ(std::get<WrapRefusal>(outcome), WrapRefusal::damaged) << text;
  }
  EXPECT_EQ(std::get<WrapRefusal>(decodeWrap(kFullText + std::string(4096, ' '))), WrapRefusal::damaged);
  EXPECT_EQ(std::get<WrapRefusal>(decodeWrap(R"({"format":2,"all":"different"})")), WrapRefusal::newerFormat);
}

TEST(StoreWrap, opensWithItsPassphraseAloneAndOnlyAsItWasMade) {
  const crypto::SymmetricKey key = crypto::SymmetricKey::random();
  StoreWrap wrap = fullWrap();
  sealStoreKey(wrap, WrappingKey::make("made up \u00e9", {8, 1}), key);
  const auto opened = [](const StoreWrap& tried, std::string_view passphrase) {
    const auto found = openStoreKey(tried, passphrase);
    return found ? std::string(base::textOf(found->bytes())) : std::string();
  };
  const std::string bytes(base::textOf(key.bytes()));
  EXPECT_EQ(opened(wrap, "made up \u00e9"), bytes);
  EXPECT_EQ(opened(wrap, "made up e\u0301"), bytes);
  EXPECT_EQ(opened(wrap, "made up e"), "");
  // What is not sealed may change.
  StoreWrap changed = wrap;
  changed.requirement = PassphraseRequirement::only;
  changed.failedAttempts = 0;
  EXPECT_EQ(opened(changed, "made up \u00e9"), bytes);
  for (const auto& change : {std::function<void(StoreWrap&)>([](StoreWrap& w) { w.salt[0] ^= 1; }),
                             std::function<void(StoreWrap&)>([](StoreWrap& w) { w.cost.memoryKiB = 16; }),
                             std::function<void(StoreWrap&)>([](StoreWrap& w) { w.cost.iterations = 2; }),
                             std::function<void(StoreWrap&)>([](StoreWrap& w) { w.key[30] ^= 1; })}) {
    changed = wrap;
    change(changed);
    EXPECT_EQ(opened(changed, "made up \u00e9"), "");
  }
}

/// A store whose reading waits for the test.
class SlowStore final : public vault::EnumerableSecretStore {
 public:
  void store(std::string_view, const base::SecretText&) override {}
  base::SecretText read(std::string_view) override {
    begun.set_value();
    goOn.get_future().wait();
    return base::SecretText("made up");
  }
  void remove(std::string_view) override {}
  std::vector<std::string> accounts() override { return {}; }
  std::promise<void> begun, goOn;
};

TEST(StoreDoor, closesWhenTheLastCallIsOverAndRefusesTheNext) {
  auto slow = std::make_shared<SlowStore>();
  const std::weak_ptr<SlowStore> watched = slow;
  SlowStore& store = *slow;
  StoreDoor door;
  door.open(std::move(slow));
  auto value = std::async(std::launch::async, [&] { return door.read("a"); });
  store.begun.get_future().wait();
  auto closing = std::async(std::launch::async, [&] { door.close(); });
  while (door.behind() != nullptr) std::this_thread::yield();
  EXPECT_THROW(door.accounts(), UnlockError);
  EXPECT_EQ(closing.wait_for(0s), std::future_status::timeout);
  EXPECT_FALSE(watched.expired());
  store.goOn.set_value();
  closing.get();
  EXPECT_EQ(value.get().view(), "made up");
  EXPECT_TRUE(watched.expired());
}

TEST(StoreDoor, keepsCallersWaitingWhileItIsPaused) {
  auto memory = std::make_shared<MemorySecretStore>();
  memory->store("a", base::SecretText("one"));
  StoreDoor door;
  door.open(memory);
  std::future<base::SecretText> value;
  {
    const StoreDoor::Pause pause(door);
    value = std::async(std::launch::async, [&] { return door.read("a"); });
    auto other = std::make_shared<MemorySecretStore>();
    other->store("a", base::SecretText("two"));
    door.open(other);
  }
  EXPECT_EQ(value.get().view(), "two");
}

}  // namespace
}  // namespace sorvane::test
