#pragma once

#include <chrono>
#include <cstddef>
#include <stop_token>
#include <string>

namespace sorvane::agent {

/// Nobody is asked whether to test, and a phone that rings all day is switched off.
inline constexpr std::size_t kMostPhoneTests = 6;
inline constexpr std::chrono::seconds kPhoneTestWindow{60};

/// OwnerPhones is what the owner's actions need of the link to the paired phones; the application implements it.
/// Documents are JSON (docs/owner-actions.md). Failures are base::Error. Any thread.
class OwnerPhones {
 public:
  virtual ~OwnerPhones() = default;

  virtual bool isAnyPaired() = 0;
  /// Whether it is known which phones are paired: their list could be read.
  virtual bool isListKnown() = 0;
  /// Throws when no phone can be paired now.
  virtual void checkPairing() = 0;
  enum class Unreadable { keep, replace };
  /// Opens pairing: the document holds its code, and is for the owner's eyes. `unreadable`: what happens to an earlier
  /// list that cannot be read any more; one that is kept throws.
  virtual std::string beginPairing(Unreadable unreadable) = 0;
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
  /// Puts a question about nothing to the phones, and tells who answered what, and when. One at a time, and
  /// kMostPhoneTests in kPhoneTestWindow; throws beyond that.
  virtual std::string test(const std::string& requestor, const std::stop_token& withdrawn) = 0;
};

}  // namespace sorvane::agent
