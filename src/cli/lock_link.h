#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "agent/owner_protocol.h"
#include "cli/session.h"

namespace sorvane::cli {

/// What sorvaned says of its lock; nullopt when nobody serves "owner.sock" of the folder, or does so without sense.
std::optional<agent::LockReport> lockReportOf(const std::filesystem::path& supportFolder);

/// Why nothing can be asked of a running sorvaned whose agent socket is not there: it is locked, or open without
/// it. nullopt when it does not run. The one place of these sentences.
struct Closed {
  std::string code, sentence;
};
std::optional<Closed> whyClosed(const std::filesystem::path& supportFolder);

/// LockLink speaks with sorvaned about the lock of its vault, locked or not.
class LockLink {
 public:
  explicit LockLink(const Options& options) : options_(options) {}

  /// Throws Failure when sorvaned does not run.
  agent::LockReport report();
  /// What was done, or that a passphrase is needed. Throws Failure for a refusal, whose code is the refusal's case in
  /// snake case.
  agent::LockOutcome ask(const agent::OwnerRequest& request);
  /// The whole answer. Throws as `ask` does.
  agent::OwnerAnswer answer(const agent::OwnerRequest& request);
  /// The same for what the system asks its owner about. Where a person types, its question is put here; else what is
  /// waited for is said on a terminal.
  agent::LockOutcome askOwner(agent::OwnerRequest& request, const agent::LockReport& report);

  const Options& options() const { return options_; }

 private:
  agent::OwnerAnswer exchange(const agent::OwnerRequest& request);

  const Options& options_;
};

}  // namespace sorvane::cli
