#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>

#include "agent/owner_protocol.h"
#include "agent/protocol.h"
#include "base/error.h"

namespace sorvane::agent {

/// ClientError tells why no answer was had. `unavailable`: the application is not running or its endpoint cannot be
/// read. `withdrawn`: the caller gave the request up.
class ClientError : public base::Error {
 public:
  enum class Case { unavailable, badAnswer, withdrawn };
  ClientError(Case kind, const std::string& sentence) : Error(sentence), kind_(kind) {}
  Case kind() const { return kind_; }

 private:
  Case kind_;
};

/// What this helper program can do, in `payload["client"]` of the operations that may hand out a stand-in: it runs
/// commands with one and ends it with them.
inline constexpr std::string_view kHelperCapabilities = "local_proxy_v1";
void stateCapabilities(AgentRequest& request);

/// Reads "agent.json" of a support folder. Throws ClientError::unavailable when it is missing, not a regular file of
/// this user, or does not decode.
AgentInfo readEndpoint(const std::filesystem::path& supportFolder);

/// Sends one request and waits for its answer, which may take as long as the owner takes to decide. The peer must run
/// as this user. Throws ClientError.
AgentResponse exchange(const std::string& socketPath, const AgentRequest& request);

/// The same, until `withdrawal` is asked for: the connection is then closed, which withdraws the question to the owner,
/// and ClientError::withdrawn is thrown. The stop may come from any thread.
AgentResponse exchange(const std::string& socketPath, const AgentRequest& request, const std::stop_token& withdrawal);

/// The same with "owner.sock" of a support folder, which sorvaned serves while the vault is locked too. Throws
/// ClientError::unavailable when nobody does, and, before anything is sent, when the request has a passphrase and who
/// serves does not hold "sorvaned.lock" of the folder or, where the system does not tell who does, cannot be verified
/// to be the sorvaned that was installed together with this program.
OwnerAnswer askOwner(const std::filesystem::path& supportFolder, const OwnerRequest& request,
                     const std::stop_token& withdrawal);

}  // namespace sorvane::agent
