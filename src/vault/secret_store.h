#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "base/secret_text.h"

namespace sorvane::vault {

/// Largest value in bytes of UTF-8 that any store takes.
inline constexpr std::size_t kMaxValueBytes = 4096;

/// SecretStoreError carries the sentence of its case.
class SecretStoreError : public base::Error {
 public:
  enum class Case { tooLarge, permissionDenied, backend, notFound };

  static SecretStoreError tooLarge(std::size_t length);
  static SecretStoreError permissionDenied(const std::string& message);
  static SecretStoreError backend(const std::string& message);
  static SecretStoreError notFound();

  Case kind() const { return kind_; }
  /// The message inside the sentence; empty for tooLarge and notFound.
  const std::string& message() const { return message_; }

 private:
  SecretStoreError(Case kind, const std::string& sentence, std::string message)
      : Error(sentence), kind_(kind), message_(std::move(message)) {}
  Case kind_;
  std::string message_;
};

/// SecretStore keeps one small value per account where the system offers a place for it. Values are UTF-8, at most
/// kMaxValueBytes long. Every call may block on a system prompt; all are safe from any thread. Failures are
/// SecretStoreError.
class SecretStore {
 public:
  virtual ~SecretStore() = default;
  /// Stores `value`, replacing what the account held. After a failure the earlier value is still readable.
  virtual void store(std::string_view account, const base::SecretText& value) = 0;
  /// Throws notFound for an unknown account and permissionDenied when the person or the system said no.
  virtual base::SecretText read(std::string_view account) = 0;
  /// Removes the account; one that is not there is no failure.
  virtual void remove(std::string_view account) = 0;
};

/// EnumerableSecretStore also tells which accounts it holds, without reading their values.
class EnumerableSecretStore : public SecretStore {
 public:
  virtual std::vector<std::string> accounts() = 0;
};

}  // namespace sorvane::vault
