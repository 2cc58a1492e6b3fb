#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "agent/grants.h"

namespace sorvane::agent {

/// GrantBook is where the server looks up who presents a token. `current` is called for every request and must be cheap
/// while nothing changed. Safe from any thread.
class GrantBook {
 public:
  virtual ~GrantBook() = default;
  /// The grants that count now; never null. A file that is not trusted gives an empty list, with the reason said once
  /// on standard error. Does not throw.
  virtual std::shared_ptr<const std::vector<ClientGrant>> current() = 0;
  /// Called before the environment is deleted: grants scoped to it get the empty scope. Throws GrantsError when that
  /// could not be written; the environment is then not deleted.
  virtual void environmentRemoved(std::string_view name) = 0;
};

/// The grant whose `tokenHash` is the given one, or nullptr. Hashes are compared in constant time.
const ClientGrant* findByTokenHash(const std::vector<ClientGrant>& grants, std::string_view tokenHash);

}  // namespace sorvane::agent
