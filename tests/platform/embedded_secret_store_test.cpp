#include "platform/shared/embedded_secret_store.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <fstream>

#include "support/doubles.h"
#include "support/secret_store_contract.h"
#include "vault/namespaced_store.h"

namespace sorvane::test {

/// An embedded store in a throwaway folder.
struct Embedded {
  TemporaryFolder folder;
  base::SystemFiles files;
  platform::PlainKeyFile keys{folder.path() / "store.key", files};
  std::filesystem::path database = folder.path() / "values.db";
  std::unique_ptr<vault::EnumerableSecretStore> make() {
    return std::make_unique<platform::EmbeddedSecretStore>(database, keys);
  }
  void sql(const std::string& statement) {
    sqlite3* handle = nullptr;
    ASSERT_EQ(sqlite3_open(database.c_str(), &handle), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(handle, statement.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(handle);
    sqlite3_close(handle);
  }
};

struct Memory {
  std::unique_ptr<vault::EnumerableSecretStore> make() { return std::make_unique<MemorySecretStore>(); }
};

struct Namespaced {
  MemorySecretStore base;
  std::unique_ptr<vault::EnumerableSecretStore> make() {
    base.store("outside", base::SecretText("x"));
    return std::make_unique<vault::NamespacedSecretStore>(base, "stage");
  }
};

INSTANTIATE_TYPED_TEST_SUITE_P(Embedded, SecretStoreContract, Embedded);
INSTANTIATE_TYPED_TEST_SUITE_P(Memory, SecretStoreContract, Memory);
INSTANTIATE_TYPED_TEST_SUITE_P(Namespaced, SecretStoreContract, Namespaced);

namespace {

using platform::EmbeddedSecretStore;

std::string sentenceOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const SecretStoreError& error) {
    return error.sentence();
  }
  return "";
}

TEST(NamespacedStore, namesAccountsByTheirNameSpaceAndFailsOnceToldTo) {
  MemorySecretStore base;
  vault::NamespacedSecretStore staged(base, "g1"), plain(base, "");
  staged.store("a#v1", base::SecretText("x"));
  plain.store("b", base::SecretText("y"));
  EXPECT_EQ(base.accounts(), (std::vector<std::string>{"b", "restore:g1:a#v1"}));
  staged.setFailure("the restore was given up");
  EXPECT_EQ(sentenceOf([&] { staged.read("a#v1"); }), "credential store error: the restore was given up");
}

TEST(EmbeddedStore, keepsValuesAcrossAReopeningInFilesOfTheOwnerOnly) {
  Embedded embedded;
  embedded.make()->store("a", base::SecretText("a made-up value"));
  auto store = embedded.make();
  EXPECT_EQ(store->read("a").view(), "a made-up value");
  for (const auto& entry : std::filesystem::directory_iterator(embedded.folder.path())) {
    struct stat status {};
    ASSERT_EQ(::lstat(entry.path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U) << entry.path();
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), {});
    EXPECT_EQ(bytes.find("made-up"), std::string::npos) << entry.path();
  }
}

TEST(EmbeddedStore, refusesRowsThatWereSwappedAlteredOrCut) {
  const std::string altered = "credential store error: a stored value was altered or belongs to another store key";
  for (const char* change :
       {"UPDATE items SET box=(SELECT box FROM items WHERE account='b') WHERE account='a'",
        "UPDATE items SET box=substr(box,1,20) WHERE account='a'", "UPDATE items SET box=x'' WHERE account='a'",
        "UPDATE items SET box=zeroblob(length(box)) WHERE account='a'"}) {
    Embedded embedded;
    auto store = embedded.make();
    store->store("a", base::SecretText("one"));
    store->store("b", base::SecretText("two"));
    embedded.sql(change);
    EXPECT_EQ(sentenceOf([&] { store->read("a"); }), altered) << change;
    EXPECT_EQ(store->read("b").view(), "two");
  }
}

TEST(EmbeddedStore, neverMakesANewKeyBesideAFilledDatabase) {
  Embedded embedded;
  embedded.make()->store("a", base::SecretText("one"));
  std::filesystem::remove(embedded.folder.path() / "store.key");
  EXPECT_EQ(
      sentenceOf([&] { embedded.make(); }),
      "credential store error: the store key is missing, so the stored values cannot be opened; restore a backup");
  EXPECT_FALSE(std::filesystem::exists(embedded.folder.path() / "store.key"));
  std::ofstream(embedded.folder.path() / "store.key") << "short";
  EXPECT_NE(sentenceOf([&] { embedded.make(); }).find("is damaged"), std::string::npos);
}

TEST(EmbeddedStore, closesAKeyFileToOthersAndRefusesALink) {
  Embedded embedded;
  const auto key = embedded.folder.path() / "store.key";
  embedded.make()->store("a", base::SecretText("one"));
  ASSERT_EQ(::chmod(key.c_str(), 0644), 0);
  EXPECT_EQ(embedded.make()->read("a").view(), "one");
  struct stat status {};
  ASSERT_EQ(::lstat(key.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  std::filesystem::rename(key, embedded.folder.path() / "elsewhere");
  std::filesystem::create_symlink(embedded.folder.path() / "elsewhere", key);
  EXPECT_NE(sentenceOf([&] { embedded.make(); }), "");
}

TEST(EmbeddedStore, refusesAFileThatIsNoDatabaseOrNotOurs) {
  Embedded garbage;
  std::ofstream(garbage.database) << std::string(8192, 'z');
  EXPECT_NE(sentenceOf([&] { garbage.make(); }).find("file is not a database"), std::string::npos);
  Embedded linked;
  std::ofstream(linked.folder.path() / "real") << "";
  std::filesystem::create_symlink(linked.folder.path() / "real", linked.database);
  EXPECT_NE(sentenceOf([&] { linked.make(); }), "");
  Embedded hard;
  std::ofstream(hard.folder.path() / "real") << "";
  std::filesystem::create_hard_link(hard.folder.path() / "real", hard.database);
  EXPECT_NE(sentenceOf([&] { hard.make(); }).find("is not a file of this user alone"), std::string::npos);
}

}  // namespace
}  // namespace sorvane::test
