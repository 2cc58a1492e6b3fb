#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include <atomic>
#include <cstdlib>

#include "platform/linux/secret_service_store.h"
#include "platform/shared/embedded_secret_store.h"
#include "support/private_bus.h"
#include "support/secret_store_contract.h"
#include "vault/store_move.h"

namespace sorvane::test {

constexpr char kNoKeyring[] = "there is no throwaway keyring; tests/support/with-secret-service starts one";

/// Only a keyring that was started for the tests is touched, never the user's own.
bool hasThrowawayKeyring() {
  return std::getenv("SORVANE_TEST_KEYRING") != nullptr;
}

struct SecretService {
  static constexpr const char* kMissing = kNoKeyring;
  std::unique_ptr<vault::EnumerableSecretStore> make() {
    if (!hasThrowawayKeyring()) return nullptr;
    auto store = std::make_unique<platform::SecretServiceStore>("app.sorvane.test");
    for (const std::string& account : store->accounts()) store->remove(account);
    return store;
  }
};

INSTANTIATE_TYPED_TEST_SUITE_P(SecretService, SecretStoreContract, SecretService);

namespace {

using platform::SecretServiceCipher;
using platform::SecretServiceStore;
using namespace std::chrono_literals;

std::string sentenceOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const SecretStoreError& error) {
    return error.sentence();
  }
  return "";
}

TEST(SecretServiceKeyring, holdsOneItemAnAccountWhichOthersFindByItsAttributes) {
  if (!hasThrowawayKeyring()) GTEST_SKIP() << kNoKeyring;
  SecretService maker;
  const auto store = maker.make();
  platform::DbusSecretService bus(1s);
  const platform::DbusSecretService::Attributes attributes{{"service", "app.sorvane.test"}, {"account", "a#v1"}};
  for (const char* value : {"one", "two", "three"}) {
    store->store("a#v1", base::SecretText(value));
    const auto found = bus.search(attributes);
    ASSERT_EQ(found.unlocked.size(), 1U);
    EXPECT_EQ(bus.secretOf(found.unlocked.front()).view(), value);
  }
  SecretServiceStore other("app.sorvane.other");
  EXPECT_EQ(sentenceOf([&] { other.read("a#v1"); }), "secret value not found");
  EXPECT_TRUE(other.accounts().empty());
}

// The shared number begins with a zero byte in one session of 256, where the two sides must not read it differently.
TEST(SecretServiceKeyring, agreesOnAKeyInEverySession) {
  if (!hasThrowawayKeyring()) GTEST_SKIP() << kNoKeyring;
  SecretService().make()->store("a", base::SecretText("one"));
  for (int i = 0; i < 400; ++i) {
    ASSERT_EQ(SecretServiceStore("app.sorvane.test").read("a").view(), "one") << i;
  }
}

TEST(SecretServiceKeyring, isMovedToAndFromWithEveryItem) {
  if (!hasThrowawayKeyring()) GTEST_SKIP() << kNoKeyring;
  const auto keyring = SecretService().make();
  TemporaryFolder folder;
  base::SystemFiles files;
  platform::PlainKeyFile keys(folder.path() / "store.key", files);
  platform::EmbeddedSecretStore embedded(folder.path() / "values.db", keys);
  for (int i = 0; i < 20; ++i)
    embedded.store("sec_" + std::to_string(i) + "#v1", base::SecretText("’" + std::to_string(i)));
  const auto accounts = embedded.accounts();
  EXPECT_EQ(vault::moveStore(embedded, *keyring, {}), vault::StoreMoveOutcome::moved);
  EXPECT_TRUE(embedded.accounts().empty());
  EXPECT_EQ(vault::moveStore(*keyring, embedded, {}), vault::StoreMoveOutcome::moved);
  EXPECT_TRUE(keyring->accounts().empty());
  for (int i = 0; i < 20; ++i) EXPECT_EQ(embedded.read(accounts[static_cast<std::size_t>(i)]).view().substr(0, 3), "’");
  EXPECT_EQ(embedded.read("sec_7#v1").view(), "’7");
  EXPECT_EQ(embedded.accounts().size(), 21U);  // and the marker
}

// Has a keyring of its own: what is locked here stays locked, since nobody is there to type its password.
TEST(LockedKeyring, isToldApartFromAnEmptyOne) {
  if (!hasThrowawayKeyring()) GTEST_SKIP() << kNoKeyring;
  const auto store = SecretService().make();
  store->store("a", base::SecretText("one"));
  const std::string collection = platform::DbusSecretService(1s).defaultCollection();
  const auto connection = sdbus::createSessionBusConnection();
  const auto service = sdbus::createProxy(*connection, "org.freedesktop.secrets", "/org/freedesktop/secrets");
  service->callMethod("Lock")
      .onInterface("org.freedesktop.Secret.Service")
      .withArguments(std::vector<sdbus::ObjectPath>{sdbus::ObjectPath(collection)});
  const std::string dismissed =
      "credential store access denied: the keyring’s question was dismissed; try again and unlock the keyring";
  EXPECT_EQ(sentenceOf([&] { store->read("a"); }), dismissed);
  EXPECT_EQ(sentenceOf([&] { store->read("unknown"); }), dismissed);
  EXPECT_EQ(sentenceOf([&] { store->store("b", base::SecretText("two")); }), dismissed);
  EXPECT_EQ(sentenceOf([&] { store->remove("a"); }), dismissed);
  EXPECT_EQ(sentenceOf([&] { store->accounts(); }), dismissed);
}

TEST(SecretServiceCipherTest, refusesNumbersThatProtectNothingAndMessagesThatWereCut) {
  SecretServiceCipher ours, theirs;
  for (const base::Bytes& number :
       {base::Bytes{}, base::Bytes{0}, base::Bytes{1}, base::Bytes(128, 0xff), base::Bytes(129, 1)}) {
    EXPECT_EQ(ours.agree(number), SecretServiceCipher::Agreement::refused);
  }
  if (ours.agree(theirs.publicKey()) == SecretServiceCipher::Agreement::repeat) return;
  ASSERT_EQ(theirs.agree(ours.publicKey()), SecretServiceCipher::Agreement::agreed);
  for (const std::size_t size : {0U, 1U, 15U, 16U, 4096U}) {
    const base::SecretText value(std::string(size, 'v'));
    auto sealed = ours.encrypt(value);
    const auto opened = theirs.decrypt(sealed.parameters, sealed.value);
    ASSERT_TRUE(opened && opened->sameAs(value.view())) << size;
    sealed.value.pop_back();
    EXPECT_FALSE(theirs.decrypt(sealed.parameters, sealed.value)) << size;
    EXPECT_FALSE(theirs.decrypt({}, sealed.value)) << size;
  }
}

/// A keyring on a private bus with one item, which is locked as the test says and answers its own question.
class OwnKeyring {
 public:
  enum class Answer { unlock, dismiss, none };
  OwnKeyring() : connection_(sdbus::createSessionBusConnection("org.freedesktop.secrets")) {
    serveService();
    serveCollectionAndItem();
    servePrompt();
    connection_->enterEventLoopAsync();
  }
  std::atomic<bool> locked{false}, hidesLocked{false}, forgetsSession{false}, refusesRead{false};
  std::atomic<Answer> answer{Answer::unlock};
  std::atomic<int> questions{0}, withdrawn{0};

 private:
  using Path = sdbus::ObjectPath;
  using Paths = std::vector<Path>;
  using Secret = sdbus::Struct<Path, base::Bytes, base::Bytes, std::string>;

  void serveService() {
    const std::string name = "org.freedesktop.Secret.Service";
    service_->registerMethod("OpenSession")
        .onInterface(name)
        .implementedAs([this](const std::string&, const sdbus::Variant& key) -> std::tuple<sdbus::Variant, Path> {
          cipher_ = std::make_unique<SecretServiceCipher>();
          cipher_->agree(key.get<base::Bytes>());
          return {sdbus::Variant(cipher_->publicKey()), Path("/session")};
        });
    service_->registerMethod("SearchItems")
        .onInterface(name)
        .implementedAs([this](const std::map<std::string, std::string>&) -> std::tuple<Paths, Paths> {
          if (!locked) return {Paths{Path("/item")}, Paths{}};
          return {Paths{}, hidesLocked ? Paths{} : Paths{Path("/item")}};
        });
    service_->registerMethod("ReadAlias").onInterface(name).implementedAs([](const std::string&) {
      return Path("/collection");
    });
    service_->registerMethod("Unlock").onInterface(name).implementedAs([](const Paths&) -> std::tuple<Paths, Path> {
      return {Paths{}, Path("/prompt")};
    });
    service_->finishRegistration();
  }
  void serveCollectionAndItem() {
    collection_->registerProperty("Locked").onInterface("org.freedesktop.Secret.Collection").withGetter([this] {
      return locked.load();
    });
    collection_->finishRegistration();
    item_->registerMethod("GetSecret")
        .onInterface("org.freedesktop.Secret.Item")
        .implementedAs([this](const Path& session) {
          if (refusesRead) throw sdbus::Error("org.freedesktop.Secret.Error.IsLocked", "locked meanwhile");
          if (forgetsSession.exchange(false))
            throw sdbus::Error("org.freedesktop.Secret.Error.NoSession", "no session");
          auto sealed = cipher_->encrypt(base::SecretText("a made-up value"));
          return Secret{session, sealed.parameters, sealed.value, "text/plain"};
        });
    item_->finishRegistration();
  }
  void servePrompt() {
    const std::string name = "org.freedesktop.Secret.Prompt";
    prompt_->registerSignal("Completed").onInterface(name).withParameters<bool, sdbus::Variant>();
    prompt_->registerMethod("Prompt").onInterface(name).implementedAs([this, name](const std::string&) {
      ++questions;
      if (answer == Answer::none) return;
      if (answer == Answer::unlock) locked = false;
      prompt_->emitSignal("Completed")
          .onInterface(name)
          .withArguments(answer == Answer::dismiss, sdbus::Variant(Paths{}));
    });
    prompt_->registerMethod("Dismiss").onInterface(name).implementedAs([this] { ++withdrawn; });
    prompt_->finishRegistration();
  }

  std::unique_ptr<SecretServiceCipher> cipher_;
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IObject> service_ = sdbus::createObject(*connection_, "/org/freedesktop/secrets");
  std::unique_ptr<sdbus::IObject> collection_ = sdbus::createObject(*connection_, "/collection");
  std::unique_ptr<sdbus::IObject> item_ = sdbus::createObject(*connection_, "/item");
  std::unique_ptr<sdbus::IObject> prompt_ = sdbus::createObject(*connection_, "/prompt");
};

class SecretServiceFaults : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!bus_.isRunning()) GTEST_SKIP() << "dbus-daemon is not installed";
  }
  std::string valueOf(SecretServiceStore& store) { return std::string(store.read("a").view()); }
  PrivateBus bus_;
};

TEST_F(SecretServiceFaults, asksToUnlockAndTellsTheRefusalsApart) {
  OwnKeyring keyring;
  const std::string denied = "credential store access denied: ";
  for (const bool hides : {false, true}) {
    keyring.hidesLocked = hides;
    const std::tuple<OwnKeyring::Answer, std::string> cases[] = {
        {OwnKeyring::Answer::unlock, ""},
        {OwnKeyring::Answer::dismiss,
         denied + "the keyring’s question was dismissed; try again and unlock the keyring"},
        {OwnKeyring::Answer::none,
         denied + "nobody answered the keyring’s question in time; unlock the keyring and try again"},
    };
    for (const auto& [answer, sentence] : cases) {
      keyring.locked = true;
      keyring.answer = answer;
      SecretServiceStore store("app.sorvane", 100ms);
      EXPECT_EQ(sentenceOf([&] { valueOf(store); }), sentence);
      keyring.locked = false;
      EXPECT_EQ(valueOf(store), "a made-up value");
    }
  }
  EXPECT_EQ(keyring.questions, 6);
  EXPECT_EQ(keyring.withdrawn, 2);
  keyring.refusesRead = true;
  SecretServiceStore store;
  EXPECT_EQ(sentenceOf([&] { valueOf(store); }), denied + "the keyring is locked; unlock it and try again");
}

TEST_F(SecretServiceFaults, asksOnceForCallsThatWaitForTheSameAnswer) {
  OwnKeyring keyring;
  keyring.locked = true;
  keyring.answer = OwnKeyring::Answer::none;
  SecretServiceStore store("app.sorvane", 1s);
  std::thread first([&] { EXPECT_NE(sentenceOf([&] { valueOf(store); }), ""); });
  while (keyring.questions == 0) std::this_thread::yield();
  std::vector<std::thread> later;
  for (int i = 0; i < 4; ++i) later.emplace_back([&] { EXPECT_NE(sentenceOf([&] { valueOf(store); }), ""); });
  first.join();
  for (std::thread& thread : later) thread.join();
  EXPECT_EQ(keyring.questions, 1);
}

TEST_F(SecretServiceFaults, worksAgainOnceTheKeyringOrTheBusIsBack) {
  SecretServiceStore store;
  const std::string unavailable = "credential store error: no Secret Service can be reached on this session’s bus (";
  EXPECT_EQ(sentenceOf([&] { valueOf(store); }).substr(0, unavailable.size()), unavailable);
  {
    OwnKeyring keyring;
    EXPECT_EQ(valueOf(store), "a made-up value");
    keyring.forgetsSession = true;
    EXPECT_EQ(valueOf(store), "a made-up value");
  }
  EXPECT_EQ(sentenceOf([&] { valueOf(store); }).substr(0, unavailable.size()), unavailable);
  bus_.stop();
  EXPECT_EQ(sentenceOf([&] { valueOf(store); }).substr(0, unavailable.size()), unavailable);
  bus_.start();
  OwnKeyring keyring;
  EXPECT_EQ(valueOf(store), "a made-up value");
  EXPECT_NE(sentenceOf([&] { store.read(std::string_view("a\0b", 3)); }), "");
}

}  // namespace
}  // namespace sorvane::test
