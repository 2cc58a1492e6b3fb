#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/lock_link.h"

namespace sorvane::cli {

// What a person does with the lock, passphrases asked for where they are needed. Each says in a sentence what was done
// and throws Failure for what was not. At a terminal what was mistyped is asked for again, three times at most.

std::string unlockVault(LockLink& link, agent::OwnerLock::Method method);
std::string lockVault(LockLink& link, agent::OwnerLock::Lock lock);
/// `requirement` is "withSystem" or "only"; nullopt: with the system's check where it can be had.
std::string setPassphrase(LockLink& link, const std::optional<std::string>& requirement);
std::string changePassphrase(LockLink& link);
std::string removePassphrase(LockLink& link);
std::string changeRequirement(LockLink& link, const std::string& requirement);
std::string changeFollowsSession(LockLink& link, bool follows);
std::string resetUnlockSettings(LockLink& link);

/// What is to be confirmed in words before a change that weakens the lock; of a reset, the application's own words.
std::string warningOfNoPassphrase();
std::string warningOfReset(const agent::LockReport& report);

/// Whether the first passphrase is the only way to open it.
bool canSetFirst(const agent::LockReport& report);

/// The lock in words: how it stands, what opens it and what it does not protect against.
std::vector<std::string> describeLock(const agent::LockReport& report);

}  // namespace sorvane::cli
