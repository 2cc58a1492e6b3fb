#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"
#include "base/secret_text.h"

namespace sorvane::agent {

// The wire format of the agent socket: one JSON request to the end of the client's stream, one JSON response, then
// close. docs/agent-protocol.md describes it for authors of clients.

/// Largest request that is parsed, in bytes.
inline constexpr std::size_t kMaxRequestBytes = 65536;
/// Receive and send time-out of a connection.
inline constexpr int kSocketTimeoutSeconds = 10;

enum class AgentOp {
  listEnvironments,
  listSecrets,
  renderEnv,
  runEnv,
  getSecret,
  captureSecret,
  importProject,
  createEnvironment,
  deleteEnvironment,
  addToEnvironment,
  peekClipboard,
  captureClipboard,
  beginTaskSession,
  listTaskSessions,
  endTaskSession,
  taskSessionEnv,
  manageVault,
  keyRequest,
  keyRequestStatus,
  keyList,
  keyRevoke,
  keyEnvelope,
  keyEnvFile,
  proxyUsage,
  proxyRunEnded
};
inline constexpr std::size_t kOpCount = 25;
/// The wire name, which is the name of the case.
std::string_view word(AgentOp op);
std::optional<AgentOp> agentOpOf(std::string_view word);

using Payload = std::map<std::string, std::string, std::less<>>;

/// A request as it stands on the wire. Fields that hold a token or a value are wiped with it.
struct AgentRequest {
  base::SecretText token;
  AgentOp op = AgentOp::listEnvironments;
  std::optional<std::string> arg;
  std::optional<base::SecretText> value;
  std::optional<std::string> requestor;
  std::optional<std::string> environment;
  std::optional<std::string> directory;
  std::optional<std::string> taskSession;
  std::optional<std::int64_t> durationSeconds;
  /// Arguments of an operation. A value to store travels under "value" here and is wiped with the request.
  Payload payload;
  bool hasPayload = false;

  AgentRequest() = default;
  AgentRequest(AgentRequest&&) noexcept = default;
  AgentRequest& operator=(AgentRequest&&) noexcept = default;
  ~AgentRequest();
};

/// The published spend of a proxy grant.
struct ProxySessionSummary {
  std::string display;
  std::vector<std::string> providers;
  std::int64_t spentCents = 0;
  std::int64_t budgetCents = 0;
  std::int64_t calls = 0;
  base::Date expiresAt;
};

struct TaskSessionInfo {
  std::string id;
  std::string client;
  std::string environment;
  base::Date startedAt;
  base::Date expiresAt;
  std::optional<ProxySessionSummary> proxy;
  /// Of the session's grant; not on the wire.
  std::optional<std::string> proxyLookupId{};
};

struct UsageStatus {
  std::int64_t percent = 0;
  std::optional<std::string> notice, used, allowance, planName, windowEnd, plan;
};

struct ClipboardPeek {
  bool detected = false;
  std::optional<std::string> suggestedName, kind, masked, fingerprint, note;
};

/// A response as it stands on the wire; absent fields are left out, never null.
struct AgentResponse {
  bool ok = false;
  std::optional<std::string> error;
  std::optional<std::vector<std::string>> names;
  std::optional<std::vector<base::SecretText>> lines;
  std::optional<std::vector<std::string>> warnings;
  std::optional<base::SecretText> value;
  std::optional<std::vector<std::string>> missing;
  std::optional<std::string> directory;
  std::optional<std::vector<TaskSessionInfo>> sessions;
  std::optional<std::string> errorCode;
  std::optional<base::SecretText> document;
  std::optional<std::vector<std::string>> publicNames;
  std::optional<std::vector<std::string>> runControlAllowed;
  std::optional<std::string> proxyRun;
  std::optional<UsageStatus> usage;
  std::optional<ClipboardPeek> clipboard;

  static AgentResponse refused(std::string sentence, std::optional<std::string> code = {});
};

/// The published endpoint, "agent.json".
struct AgentInfo {
  std::string socketPath;
  base::SecretText token;
  std::optional<std::vector<std::string>> capabilities;
};

/// Capabilities that are always offered, in this order; "key_requests_v1" and "local_proxy_v1" follow where they exist.
inline constexpr std::array<std::string_view, 6> kCapabilities{"task_sessions_v1",     "vault_controller_v1",
                                                               "deployment_policy_v1", "run_env_v1",
                                                               "offboard_v1",          "clipboard_capture_v1"};

// Encoders never fail for valid UTF-8. Decoders are pure and take foreign bytes: nullopt unless the text is one JSON
// object of the right shape (strict UTF-8, no duplicate keys, at most base::kMaxJsonDepth deep, no NUL in any text, an
// integer where one is due, null accepted for an absent optional field). Unknown fields are passed over.
base::SecretText encodeRequest(const AgentRequest& request);
std::optional<AgentRequest> decodeRequest(std::string_view text);
base::SecretText encodeResponse(const AgentResponse& response);
std::optional<AgentResponse> decodeResponse(std::string_view text);
base::SecretText encodeInfo(const AgentInfo& info);
std::optional<AgentInfo> decodeInfo(std::string_view text);

}  // namespace sorvane::agent
