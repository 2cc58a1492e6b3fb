#pragma once

#include <stop_token>
#include <string>

namespace sorvane::agent {

/// OwnerPhones is what the owner's actions need of the link to the paired phones; the application implements it.
/// Documents are JSON (docs/owner-actions.md). Failures are base::Error. Any thread.
class OwnerPhones {
 public:
  virtual ~OwnerPhones() = default;

  virtual bool isAnyPaired() = 0;
  /// Opens pairing: the document holds its code, and is for the owner's eyes.
  virtual std::string beginPairing() = 0;
  /// How the last pairing stands.
  virtual std::string pairing() = 0;
  virtual void cancelPairing() = 0;

  virtual std::string list() = 0;
  struct Phone {
    std::string id, name;
  };
  /// The phone of this id, or the only one of this name; throws when there is none, or more than one.
  virtual Phone find(const std::string& phone) = 0;
  virtual void revoke(const std::string& id) = 0;
  /// Puts a question about nothing to the phones, and tells who answered what, and when.
  virtual std::string test(const std::string& requestor, const std::stop_token& withdrawn) = 0;
};

}  // namespace sorvane::agent
