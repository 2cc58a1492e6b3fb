#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "agent/jobs.h"

namespace sorvane::agent {

/// ApplicationState is what only the application knows about itself.
struct ApplicationState {
  std::string version;
  std::string supportFolder;
  std::string approver;  ///< in words: who answers questions
  std::vector<std::string> capabilities;
  std::vector<std::string> notices;  ///< sentences that the owner should read
};

/// StoreState tells which credential store is in use.
struct StoreState {
  std::string kind;
  std::string note;
  bool moving = false;
};

/// VaultActions is what stands above this room: the parts of the owner's actions that only the application can carry
/// out. Failures are base::Error. Any thread.
class VaultActions {
 public:
  virtual ~VaultActions() = default;
  virtual ApplicationState state() = 0;
  virtual StoreState store() = 0;
  /// How many items the store holds; 0 while they are moved.
  virtual std::int64_t storeItems() = 0;
  /// Throws when the store cannot be moved there now.
  virtual void checkStoreMove(const std::string& to) = 0;
  /// Moves every item; returns the job's document.
  virtual std::optional<std::string> moveStore(const std::string& to, const Jobs::Step& step) = 0;
};

}  // namespace sorvane::agent
