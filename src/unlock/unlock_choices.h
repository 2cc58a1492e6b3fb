#pragma once

#include <variant>

#include "unlock/owner_presence.h"

namespace sorvane::unlock {

/// How the system may check that it is the owner.
struct BiometryMethod {
  Biometry biometry = Biometry::none;
  bool operator==(const BiometryMethod&) const = default;
};
struct WatchMethod {
  bool operator==(const WatchMethod&) const = default;
};
struct PasswordMethod {
  bool operator==(const PasswordMethod&) const = default;
};
using SystemUnlockMethod = std::variant<BiometryMethod, WatchMethod, PasswordMethod>;

/// What the lock screen offers: the first available method, and the password beside it.
struct UnlockChoices {
  SystemUnlockMethod primary;
  bool offersPassword = false;  ///< a button of its own, when it is not the primary method
  bool watchAlsoWorks = false;  ///< beside another primary method
  bool operator==(const UnlockChoices&) const = default;
};

constexpr UnlockChoices choicesOf(const UnlockHardware& hardware) {
  if (hardware.biometry != Biometry::none) return {BiometryMethod{hardware.biometry}, true, hardware.watch};
  if (hardware.watch) return {WatchMethod{}, true, false};
  return {PasswordMethod{}, false, false};
}

}  // namespace sorvane::unlock
