#include "agent/handlers.h"

namespace sorvane::agent {

// Operations that clients of this protocol know and this version does not serve: decoded, authenticated and refused.

AgentResponse Handlers::keysNotServed(Call&) {
  return AgentResponse::refused(
      "Provider keys from the cloud are not set up on this computer. Nothing was shared. Use a key that the owner "
      "keeps in sorvane.",
      "not_available");
}

}  // namespace sorvane::agent
