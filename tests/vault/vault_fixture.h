#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "support/doubles.h"
#include "vault/accounts.h"
#include "vault/sealed_files.h"
#include "vault/vault.h"

namespace sorvane::test {

/// What `call` throws says; empty when it throws nothing.
template <typename Call>
std::string sentenceOf(const Call& call) {
  try {
    call();
  } catch (const base::Error& error) {
    return error.sentence();
  }
  return {};
}

inline vault::NewSecret newSecret(const std::string& name, std::string_view value) {
  vault::NewSecret secret;
  secret.name = name;
  secret.first.value = base::SecretText(value);
  return secret;
}

inline vault::NewVersion newVersion(std::string_view value) {
  vault::NewVersion version;
  version.value = base::SecretText(value);
  return version;
}

/// A vault in a throwaway folder, with a store that holds its values in memory.
class VaultFixture : public ::testing::Test {
 public:
  vault::Vault& open() {
    vault_.reset();
    vault_ = std::make_unique<vault::Vault>(directory(), vault::Vault::Ports{files(), store(), clock_, revoker_});
    return *vault_;
  }
  vault::Vault& vault() { return vault_ ? *vault_ : open(); }
  void close() { vault_.reset(); }

  virtual base::Files& files() { return systemFiles_; }
  virtual vault::EnumerableSecretStore& store() { return memory_; }
  std::filesystem::path directory() const { return folder_.path() / "vault"; }
  std::filesystem::path fileIn(std::string_view name) {
    return directory() / "generations" / vault().generation() / name;
  }
  std::string bytesOf(const std::filesystem::path& path) {
    const auto contents = systemFiles_.read(path);
    return contents ? std::string(base::textOf(contents->bytes)) : std::string();
  }
  void put(const std::filesystem::path& path, std::string_view text) {
    systemFiles_.writeAtomically(path, base::bytesOf(text));
  }
  std::string valueOf(const std::string& id, std::int64_t version) {
    return std::string(memory_.read(vault::accountOf(id, version)).view());
  }

 protected:
  TemporaryFolder folder_;
  base::SystemFiles systemFiles_;
  MemorySecretStore memory_;
  ManualClock clock_;
  RecordingRevoker revoker_;
  std::unique_ptr<vault::Vault> vault_;
};

}  // namespace sorvane::test
