#pragma once

#include <optional>

#include "base/system.h"
#include "unlock/owner_presence.h"

namespace sorvane::platform {

/// The process of this user that a question is asked for, such as the program that the person typed into.
struct Asking {
  base::ProcessInfo process;
  /// It answers the question itself and shows the reason there.
  bool showsReason = false;
};

/// AskingPresence is an owner's check that can be told for whom it asks.
class AskingPresence : public unlock::OwnerPresence {
 public:
  /// For whom the system is asked from now on; nullopt: for the application's own process. A system that asks for
  /// nobody else takes no notice. Any thread.
  virtual void askFor(std::optional<Asking> asking) = 0;
};

}  // namespace sorvane::platform
