#include "agent/handlers.h"

namespace sorvane::agent {

// Operations that clients of this protocol know and this version does not serve: decoded, authenticated and refused.

namespace {

AgentResponse notServed(std::string_view sentence, std::string_view code) {
  return AgentResponse::refused(std::string(sentence), std::string(code));
}

}  // namespace

AgentResponse Handlers::keysNotServed(Call&) {
  return notServed(
      "Provider keys from the cloud are not set up on this computer. Nothing was shared. Use a key that the owner "
      "keeps "
      "in sorvane.",
      "not_available");
}

AgentResponse Handlers::proxyNotServed(Call&) {
  return notServed(
      "The local model proxy is not set up on this computer. Nothing was shared. Use run_with_env with a key that is "
      "not protected.",
      "proxy_unavailable");
}

}  // namespace sorvane::agent
