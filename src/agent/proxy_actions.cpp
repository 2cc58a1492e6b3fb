#include <algorithm>

#include "agent/owner_action_handlers.h"
#include "base/date.h"
#include "vault/proxy_provider.h"

namespace sorvane::agent {
namespace {

using vault::ProxyProvider;

constexpr std::string_view kTokenBegin = "qzt_local_";

std::optional<ProxyProvider> providerGiven(const ActionArguments& arguments) {
  const auto text = arguments.text("provider");
  if (!text || text->empty()) return std::nullopt;
  const auto provider = vault::proxyProviderOf(*text);
  if (!provider) {
    throw ActionError("Choose anthropic, openai or openrouter as the provider. Nothing was changed.");
  }
  return provider;
}

std::string namesOf(const std::vector<const vault::Project*>& environments) {
  std::string names;
  for (const vault::Project* const environment : environments) names += (names.empty() ? "" : ", ") + environment->name;
  return names;
}

AgentResponse providerUnclear(const std::string& name) {
  return AgentResponse::refused("sorvane cannot tell from the key '" + name +
                                    "' or its names which provider it is for. Nothing was changed. Say it with "
                                    "--provider: anthropic, openai or openrouter.",
                                "provider_unclear");
}

void writeKeys(base::JsonWriter& out, const vault::LocalProxySettings& settings, const vault::Records& records) {
  out.key("keys").beginArray();
  for (const auto& [id, provider] : settings.protectedSecrets) {
    const vault::Secret* const secret = records.secretById(id);
    out.beginObject().field("secretId", id);
    if (secret != nullptr) out.field("secret", secret->name);
    out.field("provider", vault::word(provider)).key("environments").beginArray();
    for (const vault::Project* const environment : records.projectsUsing(id)) out.string(environment->name);
    out.endArray().endObject();
  }
  out.endArray();
}

void writeStandIn(base::JsonWriter& out, const proxy::ProxyGrantStatus& status) {
  const proxy::ProxyGrantSummary& summary = status.summary;
  out.beginObject().field("display", summary.display).field("client", status.client);
  out.field("environment", status.environmentName).key("providers").beginArray();
  for (const ProxyProvider provider : summary.providers) out.string(vault::word(provider));
  out.endArray().key("spentCents").integer(summary.spentCents).key("budgetCents").integer(summary.budgetCents);
  out.key("calls").integer(summary.calls).field("expiresAt", base::iso8601(summary.expiresAt));
  out.key("paused").boolean(status.paused).field("taskSession", status.taskSessionId).field("run", status.runId);
  out.endObject();
}

std::string_view word(vault::ProtectionState state) {
  switch (state) {
    case vault::ProtectionState::none:
      return "none";
    case vault::ProtectionState::present:
      return "present";
    case vault::ProtectionState::removed:
      return "removed";
  }
  return "";
}

}  // namespace

OwnerProxy& OwnerActionHandlers::runningProxy() const {
  if (ports_.proxy == nullptr) {
    throw ActionError("No local proxy runs here, so there is nothing to show or change. Nothing was shared.");
  }
  return *ports_.proxy;
}

proxy::ProxyGrantStatus OwnerActionHandlers::grantNamed(const ActionArguments& arguments) const {
  std::string_view id = arguments.need("id");
  if (id.starts_with(kTokenBegin)) id.remove_prefix(kTokenBegin.size());
  std::vector<proxy::ProxyGrantStatus> found;
  for (proxy::ProxyGrantStatus& status : runningProxy().statuses()) {
    const std::string_view lookupId = std::string_view(status.summary.display).substr(kTokenBegin.size());
    if (!id.empty() && lookupId.starts_with(id)) found.push_back(std::move(status));
  }
  if (found.size() == 1) return found.front();
  throw ActionError(found.empty() ? "No stand-in that is live begins with '" + std::string(id) +
                                        "'. Nothing was changed. sorvane proxy status shows them."
                                  : "More than one stand-in begins with '" + std::string(id) +
                                        "'. Nothing was changed. Give more of its characters.");
}

ActionPlan OwnerActionHandlers::proxyProtect(const ActionArguments& arguments, ActionCall& call) {
  const vault::Secret secret = secretNamed(arguments);
  const auto given = providerGiven(arguments);
  const auto known = ports_.vault.protection();
  const auto held = known.settings->protectedSecrets.find(secret.id);
  const auto before = held == known.settings->protectedSecrets.end() ? std::nullopt : std::optional(held->second);
  const auto run = [this, secret, given, before, access = access(call, arguments)] {
    // One that is protected stays with its provider unless another one is named, which asks.
    auto provider = given ? given : before;
    if (!provider) provider = ports_.vault.recognisedProvider(secret.id);
    if (!provider) return providerUnclear(secret.name);
    ports_.vault.protectSecret(secret.id, *provider);
    ports_.vault.log(access);
    const std::string maker(vault::shownName(*provider));
    return withValue(base::SecretText("'" + secret.name + "' is protected as a key of " + maker +
                                      ". Programs get a stand-in for it, and only sorvane's local proxy sends it to " +
                                      maker + ". Task sessions that held the key were ended."));
  };
  if (!before || !given || *given == *before) return answer(run);
  return asking(call, "protect a key as another provider's. Name: " + secret.name, run,
                {"sorvane's local proxy sends the key to " + std::string(vault::shownName(*given)) +
                     " from then on, in place of " + std::string(vault::shownName(*before)) + ".",
                 "Task sessions that use it end."});
}

ActionPlan OwnerActionHandlers::proxyUnprotect(const ActionArguments& arguments, ActionCall& call) {
  const vault::Secret secret = secretNamed(arguments);
  const auto known = ports_.vault.protection();
  if (!known.settings->protectedSecrets.contains(secret.id)) {
    throw ActionError("'" + secret.name + "' is not protected. Nothing was changed.");
  }
  const std::string names = namesOf(ports_.vault.records()->projectsUsing(secret.id));
  return asking(
      call, "remove the protection of a key. Name: " + secret.name,
      [this, secret, access = access(call, arguments)] {
        ports_.vault.unprotectSecret(secret.id);
        ports_.vault.log(access);
        return withValue(base::SecretText("'" + secret.name +
                                          "' is no longer protected. Programs that get an environment with it get the "
                                          "key itself from now on. Task sessions that used it were ended."));
      },
      {"From then on every program that gets an environment with it gets the real key, and may send it anywhere.",
       names.empty() ? "No environment uses it now." : "Environments that use it: " + names + ".",
       "Task sessions that use it end."});
}

ActionPlan OwnerActionHandlers::proxyConfirm(const ActionArguments& arguments, ActionCall& call) {
  const auto known = ports_.vault.protection();
  std::string names;
  const auto records = ports_.vault.records();
  for (const auto& [id, provider] : known.settings->protectedSecrets) {
    const vault::Secret* const secret = records->secretById(id);
    if (secret != nullptr) names += (names.empty() ? "" : ", ") + secret->name;
  }
  std::vector<std::string> details{
      names.empty() ? "No key is protected by them: every program that gets an environment gets its real keys."
                    : "Keys that they protect: " + names + ". Every other key is delivered as it is."};
  for (std::string& line : proxyLimitsInWords(known.settings->options)) details.push_back(std::move(line));
  return asking(
      call, "confirm the settings of protected keys as they are now",
      [this, access = access(call, arguments)] {
        ports_.vault.confirmProtection();
        ports_.vault.log(access);
        return withValue(base::SecretText("The settings of protected keys hold as they are now."));
      },
      std::move(details));
}

ActionPlan OwnerActionHandlers::proxyStatus(const ActionArguments&, ActionCall&) {
  return answer([this] {
    const auto known = ports_.vault.protection();
    const auto records = ports_.vault.records();
    const auto port = ports_.proxy == nullptr ? std::nullopt : ports_.proxy->port();
    base::JsonWriter out;
    out.beginObject().key("listening").boolean(port.has_value());
    if (port) out.key("port").integer(*port);
    out.field("settings", word(known.state));
    writeKeys(out, *known.settings, *records);
    out.key("standIns").beginArray();
    std::vector<std::string> notices;
    if (known.state == vault::ProtectionState::removed) {
      notices.push_back(vault::ProtectionError::settingsRemoved().sentence());
    }
    if (ports_.proxy != nullptr) {
      for (const proxy::ProxyGrantStatus& status : ports_.proxy->statuses()) writeStandIn(out, status);
      for (std::string& notice : ports_.proxy->notices()) notices.push_back(std::move(notice));
    }
    out.endArray().strings("notices", notices).endObject();
    return withDocument(out);
  });
}

ActionPlan OwnerActionHandlers::proxyResume(const ActionArguments& arguments, ActionCall& call) {
  const proxy::ProxyGrantStatus status = grantNamed(arguments);
  if (!status.paused) throw ActionError(status.summary.display + " is not paused. Nothing was changed.");
  return asking(call, "let a paused stand-in go on. Stand-in: " + status.summary.display,
                [this, status, access = access(call, arguments)] {
                  ports_.proxy->resume(status.summary.display.substr(kTokenBegin.size()));
                  ports_.vault.log(access);
                  return withValue(base::SecretText(status.summary.display + " goes on."));
                },
                {"It is used by " + status.client + " in the environment " + status.environmentName + ".",
                 "It has spent " + proxy::dollarsOf(status.summary.spentCents) + " of " +
                     proxy::dollarsOf(status.summary.budgetCents) + " and was paused because it spent fast."});
}

ActionPlan OwnerActionHandlers::proxyEndGrant(const ActionArguments& arguments, ActionCall& call) {
  const proxy::ProxyGrantStatus status = grantNamed(arguments);
  return answer([this, status, access = access(call, arguments)] {
    ports_.proxy->end(status.summary.display.substr(kTokenBegin.size()));
    ports_.vault.log(access);
    return withValue(base::SecretText(status.summary.display + " is ended. Calls with it are refused from now on."));
  });
}

}  // namespace sorvane::agent
