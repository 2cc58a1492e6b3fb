#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "base/files.h"
#include "platform/shared/embedded_secret_store.h"
#include "platform/shared/store_key.h"
#include "unlock/sealable_store.h"

namespace sorvane::platform {

/// EmbeddedStoreFiles are the files of the embedded store in the support folder: "values.db" with its log, "store.key"
/// while the key lies in clear, and "values.db.new" while the store is sealed anew. All of mode 0600.
class EmbeddedStoreFiles final : public unlock::SealableStore {
 public:
  EmbeddedStoreFiles(const std::filesystem::path& folder, base::Files& files);
  /// What the files may be named.
  static std::vector<std::string> names();

  Store openPlain() override;
  Store open(const crypto::SymmetricKey& key) override;
  void writeCopy(vault::EnumerableSecretStore& from, const crypto::SymmetricKey& key,
                 const std::function<void(vault::SecretStore&)>& edit) override;
  bool hasCopy() override;
  void putCopyInPlace() override;
  void removeCopy() override;
  bool hasPlainKey() override { return key_.exists(); }
  void writePlainKey(const crypto::SymmetricKey& key) override { key_.keep(key); }
  void removePlainKey() override { key_.remove(); }

  const std::filesystem::path& database() const { return database_; }

 private:
  const std::filesystem::path database_, copy_;
  base::Files& files_;
  PlainKeyFile key_;
};

}  // namespace sorvane::platform
