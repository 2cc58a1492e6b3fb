#include "agent/stand_ins.h"

#include <algorithm>
#include <set>
#include <utility>

#include "proxy/money.h"
#include "proxy/route.h"
#include "vault/env_value.h"

namespace sorvane::agent {
namespace {

using proxy::ProxyProvider;

constexpr std::string_view kBaseUrlSet =
    ": sorvane set this to its local proxy for a protected key, in place of the environment's own value.";

/// The variables by which a provider's clients find its address; some know one, some the other.
std::vector<std::string_view> baseUrlNames(ProxyProvider provider) {
  switch (provider) {
    case ProxyProvider::anthropic:
      return {"ANTHROPIC_BASE_URL"};
    case ProxyProvider::openai:
      return {"OPENAI_BASE_URL", "OPENAI_API_BASE"};
    case ProxyProvider::openrouter:
      return {"OPENROUTER_BASE_URL"};
  }
  return {};
}

bool contains(const std::vector<std::string>& names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

const std::string* payloadText(const AgentRequest& request, std::string_view name) {
  const auto found = request.payload.find(name);
  return found == request.payload.end() ? nullptr : &found->second;
}

bool knowsStandIns(const AgentRequest& request) {
  const std::string* const client = payloadText(request, "client");
  if (client == nullptr) return false;
  std::string_view rest = *client;
  while (!rest.empty()) {
    const std::size_t space = std::min(rest.find(' '), rest.size());
    if (rest.substr(0, space) == kLocalProxyCapability) return true;
    rest.remove_prefix(std::min(space + 1, rest.size()));
  }
  return false;
}

std::string namesOfProviders(const std::vector<vault::ProxyRenderedKey>& keys) {
  std::set<ProxyProvider> providers;
  for (const auto& key : keys) providers.insert(key.provider);
  std::string names;
  for (const ProxyProvider provider : providers) {
    names.append(names.empty() ? "" : " and ").append(vault::shownName(provider));
  }
  return names;
}

std::string_view nameOfLine(const base::SecretText& line) {
  const std::string_view text = line.view();
  return text.starts_with('#') ? std::string_view() : text.substr(0, std::min(text.find('='), text.size()));
}

/// Takes the environment's own variable out.
void giveWay(vault::RenderedEnvironment& rendered, std::vector<vault::ProxyRenderedKey>& keys, std::string_view name) {
  auto& lines = rendered.result.lines;
  const auto line = std::find_if(lines.begin(), lines.end(), [&](const auto& l) { return nameOfLine(l) == name; });
  if (line == lines.end()) return;
  // Positions count the lines of keys before them, too.
  std::size_t position = static_cast<std::size_t>(line - lines.begin());
  for (vault::ProxyRenderedKey& key : keys) {
    if (key.position <= position) {
      ++position;
    } else {
      --key.position;
    }
  }
  lines.erase(line);
  std::erase_if(rendered.variables, [&](const auto& variable) { return variable.name == name; });
  std::erase(rendered.runControlAllowed, std::string(name));
  rendered.result.warnings.push_back(std::string(name) + std::string(kBaseUrlSet));
}

}  // namespace

bool StandInNames::isStandIn(std::string_view name) const {
  return contains(keys, name);
}

bool StandInNames::isBaseUrl(std::string_view name) const {
  return contains(baseUrls, name);
}

StandInPlan planStandIns(const AgentRequest& request, const proxy::LocalProxyBroker* broker,
                         const std::vector<vault::ProxyRenderedKey>& keys) {
  StandInPlan plan;
  if (keys.empty()) return plan;
  if (!knowsStandIns(request)) {
    plan.refusal = AgentResponse::refused(
        "This environment holds a protected key, and this sorvane helper is too old to use one. Nothing was shared. "
        "Restart the agent (or the terminal) so it loads the sorvane helper installed with the app, then try again.",
        "proxy_client_outdated");
    return plan;
  }
  if (broker == nullptr || !broker->port()) {
    plan.refusal = proxyUnavailable();
    return plan;
  }
  auto asked = proxy::proxyAskOf(payloadText(request, "proxy_budget_cents"), payloadText(request, "proxy_models"));
  std::optional<proxy::ProxyAskRefusal> refusal;
  if (auto* const invalid = std::get_if<proxy::ProxyAskRefusal>(&asked)) {
    refusal = std::move(*invalid);
  } else {
    plan.ask = std::get<proxy::ProxyAsk>(std::move(asked));
    refusal = broker->refusedAsk(plan.ask);
  }
  if (refusal) plan.refusal = AgentResponse::refused(refusal->message, refusal->code);
  return plan;
}

std::vector<std::string> standInDetails(const proxy::LocalProxyBroker* broker, const proxy::ProxyAsk& ask,
                                        const std::vector<vault::ProxyRenderedKey>& keys) {
  if (keys.empty() || broker == nullptr) return {};
  return {"In place of the protected key of " + namesOfProviders(keys) +
          " it gets a stand-in that works on this computer only and may spend at most " +
          proxy::dollarsOf(broker->budgetFor(ask)) + "."};
}

proxy::NewProxyGrant newGrant(const Call& call, vault::ProxySplitRender& split, const proxy::ProxyAsk& ask,
                              vault::Vault& vault) {
  proxy::NewProxyGrant grant;
  grant.caller = call.caller().identity;
  grant.environmentId = split.rendered.environmentId;
  grant.environmentName = split.rendered.environment;
  grant.client = call.caller().label;
  for (vault::ProxyRenderedKey& key : split.keys) {
    if (grant.credentials.contains(key.provider)) continue;
    proxy::ProxyCredential credential{key.provider, key.secretId, key.version, std::move(key.value)};
    grant.credentials.emplace(key.provider, std::move(credential));
  }
  grant.ask = ask;
  grant.audit = [&vault, context = call.access(""), id = grant.environmentId](std::string_view action) mutable {
    context.tool = action;
    vault.log(context, id);
  };
  return grant;
}

StandInNames placeStandIns(vault::ProxySplitRender& split, const proxy::IssuedProxyGrant& grant, std::uint16_t port) {
  StandInNames names;
  vault::RenderedEnvironment& rendered = split.rendered;
  const std::string address = "http://127.0.0.1:" + std::to_string(port);
  std::set<ProxyProvider> placed;
  for (const vault::ProxyRenderedKey& key : split.keys) {
    for (const std::string_view name : baseUrlNames(key.provider)) giveWay(rendered, split.keys, name);
  }
  std::vector<base::SecretText> lines;
  auto own = rendered.result.lines.begin();
  std::size_t position = 0;
  const auto add = [&](std::string_view name, std::string_view value, std::vector<std::string>& kind) {
    vault::appendEnvLine(lines.emplace_back(), name, value);
    rendered.variables.push_back({std::string(name), base::SecretText(value)});
    kind.emplace_back(name);
  };
  for (const vault::ProxyRenderedKey& key : split.keys) {
    for (; position < key.position; ++position) lines.push_back(std::move(*own++));
    add(key.variable, grant.token.view(), names.keys);
    ++position;
    if (!placed.insert(key.provider).second) continue;
    for (const std::string_view name : baseUrlNames(key.provider)) {
      // A protected key may itself be bound under such a name: the key's own line stands then.
      const bool isTaken = std::any_of(split.keys.begin(), split.keys.end(),
                                       [&](const vault::ProxyRenderedKey& other) { return other.variable == name; });
      if (!isTaken) add(name, address + std::string(proxy::baseUrlPath(key.provider)), names.baseUrls);
    }
  }
  for (; own != rendered.result.lines.end(); ++own) lines.push_back(std::move(*own));
  rendered.result.lines = std::move(lines);
  return names;
}

std::optional<ProxySessionSummary> summaryOf(const proxy::LocalProxyBroker* broker,
                                             const std::optional<std::string>& lookupId) {
  if (broker == nullptr || !lookupId) return std::nullopt;
  auto summary = broker->summaryOf(*lookupId);
  if (!summary) return std::nullopt;
  ProxySessionSummary shown{std::move(summary->display), {}, summary->spentCents, summary->budgetCents, summary->calls,
                            summary->expiresAt};
  for (const ProxyProvider provider : summary->providers) shown.providers.emplace_back(vault::word(provider));
  return shown;
}

std::string standInOwner(std::string_view id) {
  return "stand-ins of " + std::string(id);
}

AgentResponse proxyUnavailable() {
  return AgentResponse::refused(
      "This environment holds a protected key, and this build of sorvane cannot route calls for it. Nothing was "
      "shared. Update sorvane, or remove the protection in Settings > Agents.",
      "proxy_unavailable");
}

AgentResponse proxyApprovalChanged() {
  return AgentResponse::refused(
      "The vault or this environment changed while this request was handled, so its stand-in was stopped. Nothing was "
      "shared. Try again.",
      "proxy_approval_changed");
}

AgentResponse proxyGrantEnded() {
  return AgentResponse::refused(
      "The stand-in for this task session's protected key was stopped, or the protection changed. Nothing was shared. "
      "Ask the user to start a new task session.",
      "proxy_grant_ended");
}

}  // namespace sorvane::agent
