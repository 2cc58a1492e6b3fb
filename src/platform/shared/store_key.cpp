#include "platform/shared/store_key.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "base/descriptor.h"
#include "vault/secret_store.h"

namespace sorvane::platform {

using vault::SecretStoreError;

namespace {

void closeToOthers(const std::filesystem::path& path) {
  const base::Descriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file && errno == ENOENT) return;
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) {
    throw SecretStoreError::backend(path.string() + ": " + std::system_category().message(errno));
  }
  if (!S_ISREG(status.st_mode) || status.st_uid != ::geteuid()) {
    throw SecretStoreError::backend("the store key file " + path.string() + " is not a file of this user");
  }
  if ((status.st_mode & 077U) != 0 && ::fchmod(file.get(), 0600) != 0) {
    throw SecretStoreError::backend(path.string() + ": " + std::system_category().message(errno));
  }
}

}  // namespace

std::optional<crypto::SymmetricKey> PlainKeyFile::load() {
  closeToOthers(path_);
  try {
    auto contents = files_.read(path_, crypto::SymmetricKey::kBytes);
    if (!contents) return std::nullopt;
    auto key = crypto::SymmetricKey::fromBytes(contents->bytes);
    base::wipe(contents->bytes.data(), contents->bytes.size());
    if (!key) throw SecretStoreError::backend("the store key file " + path_.string() + " is damaged");
    return key;
  } catch (const base::FileError& error) {
    throw SecretStoreError::backend(error.sentence());
  }
}

crypto::SymmetricKey PlainKeyFile::make() {
  auto key = crypto::SymmetricKey::random();
  keep(key);
  return key;
}

bool PlainKeyFile::exists() const {
  std::error_code error;
  return std::filesystem::symlink_status(path_, error).type() != std::filesystem::file_type::not_found;
}

void PlainKeyFile::keep(const crypto::SymmetricKey& key) {
  try {
    files_.writeAtomically(path_, key.bytes());
  } catch (const base::FileError& error) {
    throw SecretStoreError::backend(error.sentence());
  }
}

void PlainKeyFile::remove() {
  files_.remove(path_);
}

}  // namespace sorvane::platform
