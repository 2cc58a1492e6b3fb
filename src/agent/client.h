#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "agent/protocol.h"
#include "base/error.h"

namespace sorvane::agent {

/// ClientError tells why no answer was had. `unavailable`: the application is not running or its endpoint cannot be
/// read.
class ClientError : public base::Error {
 public:
  enum class Case { unavailable, badAnswer };
  ClientError(Case kind, const std::string& sentence) : Error(sentence), kind_(kind) {}
  Case kind() const { return kind_; }

 private:
  Case kind_;
};

/// Reads "agent.json" of a support folder. Throws ClientError::unavailable when it is missing, not a regular file of
/// this user, or does not decode.
AgentInfo readEndpoint(const std::filesystem::path& supportFolder);

/// Sends one request and waits for its answer, which may take as long as the owner takes to decide. The peer must run
/// as this user. Throws ClientError.
AgentResponse exchange(const std::string& socketPath, const AgentRequest& request);

}  // namespace sorvane::agent
