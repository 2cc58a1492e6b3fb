#include "platform/shared/embedded_secret_store.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "base/descriptor.h"
#include "base/unicode.h"
#include "crypto/aead.h"

namespace sorvane::platform {

using base::Lock;
using vault::SecretStoreError;

namespace {

// The service under which every item of this application is kept, here and in the system's own stores.
constexpr std::string_view kService = "app.sorvane";
constexpr int kBusyMilliseconds = 5000;

std::string associatedData(std::string_view account) {
  // The service holds no zero byte, so the two parts cannot be read another way.
  std::string data(kService);
  data.push_back('\0');
  data.append(account);
  return data;
}

/// The file is made by us with the right mode, never by the library under the umask of the day.
void claimFile(const std::filesystem::path& path) {
  const base::Descriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) {
    throw SecretStoreError::backend(path.string() + ": " + std::system_category().message(errno));
  }
  if (!S_ISREG(status.st_mode) || status.st_uid != ::geteuid() || status.st_nlink != 1) {
    throw SecretStoreError::backend(path.string() + " is not a file of this user alone");
  }
  if (::fchmod(file.get(), 0600) != 0) {
    throw SecretStoreError::backend(path.string() + ": " + std::system_category().message(errno));
  }
}

}  // namespace

void EmbeddedSecretStore::Close::operator()(sqlite3* database) const noexcept {
  sqlite3_close_v2(database);
}
void EmbeddedSecretStore::Close::operator()(sqlite3_stmt* statement) const noexcept {
  sqlite3_finalize(statement);
}

/// Use lends a prepared statement and leaves it clean, whatever happens meanwhile.
class EmbeddedSecretStore::Use {
 public:
  explicit Use(sqlite3_stmt* statement) : statement_(statement) {}
  ~Use() {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;
  void text(int index, std::string_view text) {
    sqlite3_bind_text64(statement_, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
  }
  void blob(int index, std::span<const std::uint8_t> bytes) {
    sqlite3_bind_blob64(statement_, index, bytes.data(), bytes.size(), SQLITE_STATIC);
  }
  int step() { return sqlite3_step(statement_); }
  std::span<const std::uint8_t> bytesOfColumn(int column) {
    const auto* data = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement_, column));
    return {data, static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))};
  }

 private:
  sqlite3_stmt* statement_;
};

void EmbeddedSecretStore::fail() {
  const std::string reason = database_ ? sqlite3_errmsg(database_.get()) : "out of memory";
  throw SecretStoreError::backend("the value database could not be used (" + reason + ")");
}

void EmbeddedSecretStore::execute(const char* sql) {
  if (sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail();
}

EmbeddedSecretStore::Statement EmbeddedSecretStore::prepare(const char* sql) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v3(database_.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK) fail();
  return Statement(statement);
}

void EmbeddedSecretStore::openDatabase(const std::filesystem::path& path) {
  sqlite3* handle = nullptr;
  // SQLITE_OPEN_NOFOLLOW refuses a link anywhere in the path, which a home folder may rightly have: the file is checked
  // above.
  const int opened = sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  database_.reset(handle);
  if (opened != SQLITE_OK) fail();
  sqlite3_busy_timeout(database_.get(), kBusyMilliseconds);
  sqlite3_db_config(database_.get(), SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  // 64 pages of cache: the store is idle most of its life.
  execute(
      "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA secure_delete=ON; PRAGMA cache_size=64; PRAGMA "
      "trusted_schema=OFF;"
      "CREATE TABLE IF NOT EXISTS items(service TEXT NOT NULL, account TEXT NOT NULL, box BLOB NOT NULL,"
      " PRIMARY KEY(service, account)) WITHOUT ROWID");
}

EmbeddedSecretStore::EmbeddedSecretStore(const std::filesystem::path& database, StoreKeySource& keys) {
  claimFile(database);
  const Lock lock(mutex_);
  openDatabase(database);
  select_ = prepare("SELECT box FROM items WHERE service='app.sorvane' AND account=?1");
  upsert_ = prepare(
      "INSERT INTO items(service, account, box) VALUES('app.sorvane', ?1, ?2) ON CONFLICT DO UPDATE SET "
      "box=excluded.box");
  delete_ = prepare("DELETE FROM items WHERE service='app.sorvane' AND account=?1");
  list_ = prepare("SELECT account FROM items WHERE service='app.sorvane' ORDER BY account");
  auto key = keys.load();
  if (!key) {
    Use list(list_.get());
    const int first = list.step();
    if (first != SQLITE_ROW && first != SQLITE_DONE) fail();
    if (first == SQLITE_ROW) {
      throw SecretStoreError::backend(
          "the store key is missing, so the stored values cannot be opened; restore a backup");
    }
    key = keys.make();
  }
  key_ = std::make_unique<crypto::SymmetricKey>(std::move(*key));
}

EmbeddedSecretStore::~EmbeddedSecretStore() {
  // Statements go before their connection; the members are destroyed in the other order.
  const Lock lock(mutex_);
  select_.reset();
  upsert_.reset();
  delete_.reset();
  list_.reset();
  database_.reset();
}

void EmbeddedSecretStore::store(std::string_view account, const base::SecretText& value) {
  if (value.size() > vault::kMaxValueBytes) throw SecretStoreError::tooLarge(value.size());
  const base::Bytes box = crypto::seal(*key_, value.bytes(), associatedData(account));
  const Lock lock(mutex_);
  Use upsert(upsert_.get());
  upsert.text(1, account);
  upsert.blob(2, box);
  if (upsert.step() != SQLITE_DONE) fail();
}

base::SecretText EmbeddedSecretStore::read(std::string_view account) {
  base::Bytes box;
  {
    const Lock lock(mutex_);
    Use select(select_.get());
    select.text(1, account);
    const int row = select.step();
    if (row == SQLITE_DONE) throw SecretStoreError::notFound();
    if (row != SQLITE_ROW) fail();
    const auto bytes = select.bytesOfColumn(0);
    box.assign(bytes.begin(), bytes.end());
  }
  auto value = crypto::open(*key_, box, associatedData(account));
  if (!value) throw SecretStoreError::backend("a stored value was altered or belongs to another store key");
  if (!base::isUtf8(value->view())) throw SecretStoreError::backend("stored value is not valid UTF-8");
  return std::move(*value);
}

void EmbeddedSecretStore::remove(std::string_view account) {
  const Lock lock(mutex_);
  Use remove(delete_.get());
  remove.text(1, account);
  if (remove.step() != SQLITE_DONE) fail();
}

std::vector<std::string> EmbeddedSecretStore::accounts() {
  const Lock lock(mutex_);
  std::vector<std::string> names;
  Use list(list_.get());
  int row = SQLITE_ROW;
  while ((row = list.step()) == SQLITE_ROW) names.emplace_back(base::textOf(list.bytesOfColumn(0)));
  if (row != SQLITE_DONE) fail();
  return names;
}

void EmbeddedSecretStore::copyFrom(vault::EnumerableSecretStore& from) {
  const auto run = [this](const char* sql) {
    const Lock lock(mutex_);
    execute(sql);
  };
  run("BEGIN IMMEDIATE");
  try {
    for (const std::string& account : from.accounts()) store(account, from.read(account));
    run("COMMIT");
  } catch (const std::exception&) {
    const Lock lock(mutex_);
    sqlite3_exec(database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    throw;
  }
}

std::string EmbeddedSecretStore::answerOf(const char* sql, int column) {
  const Statement statement = prepare(sql);
  Use answer(statement.get());
  if (answer.step() != SQLITE_ROW) fail();
  return std::string(base::textOf(answer.bytesOfColumn(column)));
}

void EmbeddedSecretStore::foldLog() {
  const Lock lock(mutex_);
  if (answerOf("PRAGMA wal_checkpoint(TRUNCATE)", 0) != "0") fail();
}

void EmbeddedSecretStore::standAlone() {
  const Lock lock(mutex_);
  if (answerOf("PRAGMA journal_mode=DELETE", 0) != "delete") fail();
}

}  // namespace sorvane::platform
