#include <array>

#include "agent/protocol.h"

namespace sorvane::agent {
namespace {

// In the order of AgentOp.
constexpr std::array<std::string_view, kOpCount> kOpWords{
    "listEnvironments",  "listSecrets",      "renderEnv",        "runEnv",
    "getSecret",         "captureSecret",    "importProject",    "createEnvironment",
    "deleteEnvironment", "addToEnvironment", "peekClipboard",    "captureClipboard",
    "beginTaskSession",  "listTaskSessions", "endTaskSession",   "taskSessionEnv",
    "manageVault",       "keyRequest",       "keyRequestStatus", "keyList",
    "keyRevoke",         "keyEnvelope",      "keyEnvFile",       "proxyUsage",
    "proxyRunEnded"};

}  // namespace

std::string_view word(AgentOp op) {
  return kOpWords[static_cast<std::size_t>(op)];
}

std::optional<AgentOp> agentOpOf(std::string_view word) {
  for (std::size_t i = 0; i < kOpWords.size(); ++i) {
    if (kOpWords[i] == word) return static_cast<AgentOp>(i);
  }
  return std::nullopt;
}

AgentRequest::~AgentRequest() {
  for (auto& [name, text] : payload) base::wipe(text);
}

AgentResponse AgentResponse::refused(std::string sentence, std::optional<std::string> code) {
  AgentResponse response;
  response.error = std::move(sentence);
  response.errorCode = std::move(code);
  return response;
}

}  // namespace sorvane::agent
