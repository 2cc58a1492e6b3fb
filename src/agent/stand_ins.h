#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/operations.h"
#include "agent/protocol.h"
#include "agent/stand_in_names.h"
#include "proxy/broker.h"
#include "vault/vault.h"

namespace sorvane::agent {

// Stand-ins of the local proxy in the place of protected keys. What a request may have is decided before the owner is
// asked; the keys themselves reach the proxy alone.

/// The capability of a helper program that can use stand-ins, in `payload["client"]`: words with spaces between.
inline constexpr std::string_view kLocalProxyCapability = "local_proxy_v1";

/// What a request asks of the proxy, or why it gets nothing; without a refusal it may be put to the owner.
struct StandInPlan {
  proxy::ProxyAsk ask;
  std::optional<AgentResponse> refusal;
};
/// `broker` may be absent. Without keys nothing is asked of the proxy and nothing refused.
StandInPlan planStandIns(const AgentRequest& request, const proxy::LocalProxyBroker* broker,
                         const std::vector<vault::ProxyRenderedKey>& keys);

/// A line of a question: whose keys are stood in for and what they may spend, at most.
std::vector<std::string> standInDetails(const proxy::LocalProxyBroker* broker, const proxy::ProxyAsk& ask,
                                        const std::vector<vault::ProxyRenderedKey>& keys);

/// A grant for the keys of a render, which are moved out of it. The owner, the ids and the end are the caller's to
/// fill.
proxy::NewProxyGrant newGrant(const Call& call, vault::ProxySplitRender& split, const proxy::ProxyAsk& ask,
                              vault::Vault& vault);

/// Puts the stand-ins and the provider's base URLs where the keys belong; a variable of the environment that bears the
/// name of a base URL gives way with a warning.
StandInNames placeStandIns(vault::ProxySplitRender& split, const proxy::IssuedProxyGrant& grant, std::uint16_t port);

/// The summary of a session's grant as it goes to clients.
std::optional<ProxySessionSummary> summaryOf(const proxy::LocalProxyBroker* broker,
                                             const std::optional<std::string>& lookupId);

/// The key under which the grants of a session, or of a command's run, are ended.
std::string standInOwner(std::string_view id);

/// The refusals of the error codes with these names.
AgentResponse proxyUnavailable();
AgentResponse proxyApprovalChanged();
AgentResponse proxyGrantEnded();

}  // namespace sorvane::agent
