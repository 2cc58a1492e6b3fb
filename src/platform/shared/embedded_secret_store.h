#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "base/mutex.h"
#include "crypto/key.h"
#include "platform/shared/store_key.h"
#include "vault/secret_store.h"

struct sqlite3;
struct sqlite3_stmt;

namespace sorvane::platform {

/// EmbeddedSecretStore keeps values in an SQLite database ("values.db", mode 0600), one row an account, each value
/// sealed by itself with AES-256-GCM under the store key. Service and account are the associated data, so a row that
/// was altered, cut or moved to another account is refused and never returned. Writes are durable when they return
/// (WAL, synchronous=FULL), and what is replaced or removed is overwritten (secure_delete). One connection behind a
/// mutex; any thread.
class EmbeddedSecretStore final : public vault::EnumerableSecretStore {
 public:
  /// Opens or makes the database. Throws SecretStoreError: backend when it is damaged, a link, another user's, or
  /// sealed under a key that is gone.
  EmbeddedSecretStore(const std::filesystem::path& database, StoreKeySource& keys);
  ~EmbeddedSecretStore() override;

  void store(std::string_view account, const base::SecretText& value) override;
  base::SecretText read(std::string_view account) override;
  void remove(std::string_view account) override;
  std::vector<std::string> accounts() override;

  /// Stores every item of `from`, all or none.
  void copyFrom(vault::EnumerableSecretStore& from);
  /// Has the file of the database hold every row, its log none.
  void foldLog();
  /// The same for good: the file stands alone, without a log, until it is opened again.
  void standAlone();

 private:
  struct Close {
    void operator()(sqlite3* database) const noexcept;
    void operator()(sqlite3_stmt* statement) const noexcept;
  };
  using Database = std::unique_ptr<sqlite3, Close>;
  using Statement = std::unique_ptr<sqlite3_stmt, Close>;
  class Use;

  void openDatabase(const std::filesystem::path& path) REQUIRES(mutex_);
  Statement prepare(const char* sql) REQUIRES(mutex_);
  void execute(const char* sql) REQUIRES(mutex_);
  /// The column of the first row.
  std::string answerOf(const char* sql, int column) REQUIRES(mutex_);
  [[noreturn]] void fail() REQUIRES(mutex_);

  // Guarded. mutex_ is a leaf; SQLite's file access happens while it is held, since one connection serves one caller at
  // a time.
  base::Mutex mutex_;
  Database database_ GUARDED_BY(mutex_);
  Statement select_ GUARDED_BY(mutex_), upsert_ GUARDED_BY(mutex_), delete_ GUARDED_BY(mutex_),
      list_ GUARDED_BY(mutex_);
  // Constant after construction.
  std::unique_ptr<crypto::SymmetricKey> key_;
};

}  // namespace sorvane::platform
