#include "platform/shared/embedded_store_files.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "base/descriptor.h"
#include "base/system.h"

namespace sorvane::platform {

using vault::SecretStoreError;

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kDatabaseName = "values.db";
constexpr std::string_view kCopyName = "values.db.new";
constexpr std::string_view kStoreKeyName = "store.key";
constexpr std::array kBesideDatabase{"-wal", "-shm", "-journal", ""};
constexpr std::string_view kKeyIsGone =
    "The store key is missing, so the stored values cannot be opened. Put the file store.key or store.wrap back from a "
    "copy, or restore a backup.";

bool liesAt(const fs::path& path) {
  std::error_code error;
  return fs::symlink_status(path, error).type() != fs::file_type::not_found;
}

/// A file that SQLite keeps beside its database.
fs::path beside(const fs::path& database, const char* suffix) {
  return fs::path(database) += suffix;
}

void sync(const fs::path& path) {
  const base::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file || base::syncToDisk(file.get()) != 0) {
    throw SecretStoreError::backend(path.string() + ": " + std::system_category().message(errno));
  }
}

void requireSame(EmbeddedSecretStore& copy, vault::EnumerableSecretStore& from) {
  for (const std::string& account : from.accounts()) {
    if (!copy.read(account).sameAs(from.read(account).view())) {
      throw SecretStoreError::backend("the item " + account + " was read back differently");
    }
  }
}

}  // namespace

EmbeddedStoreFiles::EmbeddedStoreFiles(const fs::path& folder, base::Files& files)
    : database_(folder / kDatabaseName),
      copy_(folder / kCopyName),
      files_(files),
      key_(folder / kStoreKeyName, files) {}

std::vector<std::string> EmbeddedStoreFiles::names() {
  // A log goes before its database: it must never be found beside another one.
  std::vector<std::string> names;
  for (const std::string_view database : {kCopyName, kDatabaseName}) {
    for (const std::string_view suffix : kBesideDatabase) names.push_back(std::string(database) + std::string(suffix));
  }
  names.emplace_back(kStoreKeyName);
  return names;
}

EmbeddedStoreFiles::Store EmbeddedStoreFiles::openPlain() {
  if (!key_.exists() && liesAt(database_) && !open(crypto::SymmetricKey::random())->accounts().empty()) {
    throw unlock::StoreLost(std::string(kKeyIsGone));
  }
  return std::make_shared<EmbeddedSecretStore>(database_, key_);
}

EmbeddedStoreFiles::Store EmbeddedStoreFiles::open(const crypto::SymmetricKey& key) {
  GivenKey given(key);
  return std::make_shared<EmbeddedSecretStore>(database_, given);
}

void EmbeddedStoreFiles::writeCopy(vault::EnumerableSecretStore& from, const crypto::SymmetricKey& key,
                                   const std::function<void(vault::SecretStore&)>& edit) {
  auto* const opened = dynamic_cast<EmbeddedSecretStore*>(&from);
  if (opened == nullptr) throw SecretStoreError::backend("only the embedded store can be sealed anew");
  // What happens to the log afterwards costs no row.
  opened->foldLog();
  removeCopy();
  {
    GivenKey given(key);
    EmbeddedSecretStore copy(copy_, given);
    copy.copyFrom(from);
    requireSame(copy, from);
    edit(copy);
    copy.standAlone();
  }
  sync(copy_);
  sync(copy_.parent_path());
}

bool EmbeddedStoreFiles::hasCopy() {
  return liesAt(copy_);
}

void EmbeddedStoreFiles::putCopyInPlace() {
  // The old log goes first: it must never be found beside the new database.
  for (const char* suffix : {"-wal", "-shm", "-journal"}) files_.remove(beside(database_, suffix));
  files_.rename(copy_, database_);
}

void EmbeddedStoreFiles::removeCopy() {
  for (const char* suffix : kBesideDatabase) files_.remove(beside(copy_, suffix));
}

}  // namespace sorvane::platform
