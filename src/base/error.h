#pragma once

#include <exception>
#include <string>
#include <utility>

namespace sorvane::base {

/// Error is the root of every failure that a person or an agent may see. `sentence()` is the whole text, shown as it
/// stands; it never holds a secret value. Rooms derive their own types (`VaultError`, `SecretStoreError`, …).
class Error : public std::exception {
 public:
  explicit Error(std::string sentence) : sentence_(std::move(sentence)) {}
  const char* what() const noexcept override { return sentence_.c_str(); }
  const std::string& sentence() const { return sentence_; }

 private:
  std::string sentence_;
};

}  // namespace sorvane::base
