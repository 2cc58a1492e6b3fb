#pragma once

#include <filesystem>
#include <optional>

#include "base/files.h"
#include "crypto/key.h"

namespace sorvane::platform {

/// StoreKeySource hands out the key that seals the rows of the embedded store. It is a piece of its own so that the key
/// can be wrapped in another way without the store knowing.
class StoreKeySource {
 public:
  virtual ~StoreKeySource() = default;
  /// The key, or nullopt when none was ever made. Throws vault::SecretStoreError when there is one that cannot be read.
  virtual std::optional<crypto::SymmetricKey> load() = 0;
  /// Makes and keeps a new key. Called only while no row is sealed under an earlier one.
  virtual crypto::SymmetricKey make() = 0;
};

/// GivenKey is a key that somebody else keeps.
class GivenKey final : public StoreKeySource {
 public:
  explicit GivenKey(const crypto::SymmetricKey& key) : key_(key) {}
  std::optional<crypto::SymmetricKey> load() override { return key_.clone(); }
  crypto::SymmetricKey make() override { return key_.clone(); }

 private:
  const crypto::SymmetricKey& key_;
};

/// PlainKeyFile keeps the key as 32 bytes in a file of mode 0600: whoever can read the user's files can read it. A file
/// that others may use, as a careless copy makes it, is closed to them before it is read; a link or another user's file
/// is refused.
class PlainKeyFile final : public StoreKeySource {
 public:
  PlainKeyFile(std::filesystem::path path, base::Files& files) : path_(std::move(path)), files_(files) {}
  std::optional<crypto::SymmetricKey> load() override;
  crypto::SymmetricKey make() override;

  bool exists() const;
  /// Replaces the key.
  void keep(const crypto::SymmetricKey& key);
  void remove();

 private:
  const std::filesystem::path path_;
  base::Files& files_;
};

}  // namespace sorvane::platform
