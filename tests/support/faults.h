#pragma once

#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "base/files.h"
#include "vault/secret_store.h"

namespace sorvane::test {

/// Fault counts the calls that change something, of files and store together, and fails the one with the number
/// `failAt`: that one only, that one after its work is done, all later ones too, or by ending the process there.
struct Fault {
  enum class Kind { once, late, stays, ends };
  int failAt = -1;
  Kind kind = Kind::once;
  bool reads = false;  ///< calls that only read count as well
  int steps = 0;
  bool hits() {
    const int step = steps++;
    if (failAt < 0) return false;
    if (kind == Kind::ends && step == failAt) ::_exit(42);
    return step == failAt || (kind == Kind::stays && step > failAt);
  }
};

class FaultyFiles final : public base::Files {
 public:
  explicit FaultyFiles(Fault& fault) : fault_(fault) {}
  std::optional<Contents> read(const std::filesystem::path& path, std::uint64_t limit) const override {
    if (fault_.reads) step();
    return real_.read(path, limit);
  }
  std::optional<base::FileIdentity> identity(const std::filesystem::path& path) const override {
    return real_.identity(path);
  }
  base::FileIdentity writeAtomically(const std::filesystem::path& path, std::span<const std::uint8_t> bytes) override {
    const bool late = step(Late::possible);
    const base::FileIdentity identity = real_.writeAtomically(path, bytes);
    if (late) fail();
    return identity;
  }
  void append(const std::filesystem::path& path, std::span<const std::uint8_t> bytes) override {
    step();
    real_.append(path, bytes);
  }
  void remove(const std::filesystem::path& path) override {
    step();
    real_.remove(path);
  }
  void rename(const std::filesystem::path& from, const std::filesystem::path& to) override {
    step();
    real_.rename(from, to);
  }
  void makeFolder(const std::filesystem::path& path) override {
    step();
    real_.makeFolder(path);
  }
  std::vector<std::string> list(const std::filesystem::path& path) const override { return real_.list(path); }

 private:
  enum class Late { never, possible };
  /// Whether the call fails once it is done.
  bool step(Late late = Late::never) const {
    if (!fault_.hits()) return false;
    if (fault_.kind == Fault::Kind::late && late == Late::possible) return true;
    fail();
  }
  [[noreturn]] static void fail() { throw base::FileError("could not write (the disk is full)", ENOSPC); }
  base::SystemFiles real_;
  Fault& fault_;
};

class FaultyStore final : public vault::EnumerableSecretStore {
 public:
  FaultyStore(vault::EnumerableSecretStore& real, Fault& fault) : real_(real), fault_(fault) {}
  void store(std::string_view account, const base::SecretText& value) override {
    step();
    real_.store(account, value);
  }
  base::SecretText read(std::string_view account) override {
    if (fault_.reads) step();
    return real_.read(account);
  }
  void remove(std::string_view account) override {
    step();
    real_.remove(account);
  }
  std::vector<std::string> accounts() override { return real_.accounts(); }

 private:
  void step() {
    if (fault_.hits()) throw vault::SecretStoreError::backend("the store is gone");
  }
  vault::EnumerableSecretStore& real_;
  Fault& fault_;
};

}  // namespace sorvane::test
