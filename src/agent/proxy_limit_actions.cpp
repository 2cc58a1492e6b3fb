#include <algorithm>
#include <charconv>

#include "agent/owner_action_handlers.h"
#include "proxy/curl_trust.h"
#include "proxy/options.h"

namespace sorvane::agent {
namespace {

using proxy::ProxyOptions;
using vault::ProxyProvider;

/// Certificates of a company's own authority are a few thousand bytes.
constexpr std::size_t kMostAuthorityBytes = 32'768;

std::string noLimits() {
  return "The proxy's settings cannot be read by this version of sorvane. Nothing was changed or shared. Use the "
         "version "
         "that saved them.";
}

/// "anthropic:" and a model's name.
proxy::AllowedModels modelsOf(const std::vector<std::string>& items) {
  proxy::AllowedModels models;
  for (const std::string& item : items) {
    const std::size_t colon = item.find(':');
    const auto provider = colon == std::string::npos ? std::optional<ProxyProvider>()
                                                     : vault::proxyProviderOf(std::string_view(item).substr(0, colon));
    if (!provider) {
      throw ActionError(
          "Write a model as its provider, a colon and its name, such as anthropic:claude-x. Nothing was "
          "changed.");
    }
    std::vector<std::string>& names = models[*provider];
    const std::string name = item.substr(colon + 1);
    if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
  }
  return models;
}

/// "http://host:port" and nothing else: no name and password, which would stand in the clear, and no path.
bool isProxyAddress(std::string_view text) {
  constexpr std::string_view kScheme = "http://";
  if (!text.starts_with(kScheme) || text.size() > 300) return false;
  text.remove_prefix(kScheme.size());
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos || colon == 0) return false;
  const std::string_view host = text.substr(0, colon), digits = text.substr(colon + 1);
  const bool bracketed = host.front() == '[' && host.back() == ']';
  const bool plain = std::all_of(host.begin(), host.end(), [&](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-' ||
           (bracketed && (c == ':' || c == '[' || c == ']'));
  });
  unsigned port = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
  return plain && error == std::errc() && end == digits.data() + digits.size() && port >= 1 && port <= 65'535;
}

bool allowsMore(const std::optional<proxy::AllowedModels>& now, const std::optional<proxy::AllowedModels>& before) {
  if (!before) return false;
  if (!now) return true;
  for (const auto& [provider, names] : *now) {
    const auto old = before->find(provider);
    for (const std::string& name : names) {
      if (old == before->end() || std::find(old->second.begin(), old->second.end(), name) == old->second.end())
        return true;
    }
  }
  return false;
}

std::string inWords(const std::optional<proxy::AllowedModels>& models) {
  if (!models) return "any that has a price";
  std::string text;
  for (const auto& [provider, names] : *models) {
    for (const std::string& name : names)
      text.append(text.empty() ? "" : ", ").append(vault::word(provider)) += ":" + name;
  }
  return text.empty() ? "none" : text;
}

std::string secondsInWords(std::int64_t seconds) {
  struct Unit {
    std::int64_t seconds;
    const char* name;
  };
  for (const Unit& unit : {Unit{86'400, "day"}, Unit{3'600, "hour"}, Unit{60, "minute"}, Unit{1, "second"}}) {
    if (seconds % unit.seconds != 0 && unit.seconds > 1) continue;
    const std::int64_t count = seconds / unit.seconds;
    return std::to_string(count) + " " + unit.name + (count == 1 ? "" : "s");
  }
  return {};
}

constexpr const char *kBudget = "Budget of a session", *kCeiling = "The most that an agent may ask for",
                     *kLongest = "Longest session", *kRate = "Requests a minute", *kBody = "Largest request in bytes",
                     *kModels = "Allowed models", *kUnknown = "Unknown fields",
                     *kVelocity = "A stand-in pauses when it spends this within a minute",
                     *kAuthority = "Certificate authority that may vouch for providers, beside the system's",
                     *kThrough = "Calls to providers go through";

/// One line for each setting that allows more than before.
class Widening {
 public:
  void number(const char* what, std::int64_t now, std::int64_t before, std::string (*shown)(std::int64_t)) {
    if (now > before) add(what, shown(now), shown(before));
  }
  void add(const std::string& what, const std::string& now, const std::string& before) {
    lines_.push_back(what + ": " + now + ", was " + before + ".");
  }
  std::vector<std::string> lines() && { return std::move(lines_); }

 private:
  std::vector<std::string> lines_;
};

std::vector<std::string> widened(const ProxyOptions& now, const ProxyOptions& before) {
  const auto plain = [](std::int64_t number) { return std::to_string(number); };
  Widening found;
  found.number(kBudget, now.limits.budgetCents, before.limits.budgetCents, proxy::dollarsOf);
  found.number(kCeiling, now.limits.budgetCeilingCents, before.limits.budgetCeilingCents, proxy::dollarsOf);
  found.number(kLongest, now.limits.longestSessionSeconds, before.limits.longestSessionSeconds, secondsInWords);
  found.number(kRate, now.limits.requestsPerMinute, before.limits.requestsPerMinute, plain);
  found.number(kBody, now.limits.maxBodyBytes, before.limits.maxBodyBytes, plain);
  if (allowsMore(now.limits.models, before.limits.models)) {
    found.add(kModels, inWords(now.limits.models), inWords(before.limits.models));
  }
  if (!now.refuseUnknownFields && before.refuseUnknownFields) found.add(kUnknown, "passed on", "refused");
  if (before.velocityCentsPerMinute &&
      now.velocityCentsPerMinute.value_or(INT64_MAX) > *before.velocityCentsPerMinute) {
    found.add(kVelocity, now.velocityCentsPerMinute ? proxy::dollarsOf(*now.velocityCentsPerMinute) : "never",
              proxy::dollarsOf(*before.velocityCentsPerMinute));
  }
  if (now.authorityPem && now.authorityPem != before.authorityPem) {
    found.add(kAuthority, "one that you give", before.authorityPem ? "another one" : "none");
  }
  if (now.outboundProxy != before.outboundProxy) {
    found.add(kThrough, now.outboundProxy.value_or("no proxy"), before.outboundProxy.value_or("no proxy"));
  }
  return std::move(found).lines();
}

void readLimits(const ActionArguments& arguments, ProxyOptions& options) {
  struct Row {
    const char* name;
    std::int64_t proxy::ProxyDefaultLimits::*field;
  };
  for (const Row& row : {Row{"budgetCents", &proxy::ProxyDefaultLimits::budgetCents},
                         Row{"budgetCeilingCents", &proxy::ProxyDefaultLimits::budgetCeilingCents},
                         Row{"longestSessionSeconds", &proxy::ProxyDefaultLimits::longestSessionSeconds},
                         Row{"requestsPerMinute", &proxy::ProxyDefaultLimits::requestsPerMinute},
                         Row{"maxBodyBytes", &proxy::ProxyDefaultLimits::maxBodyBytes}}) {
    if (const auto number = arguments.integer(row.name)) options.limits.*row.field = *number;
  }
  if (const auto items = arguments.list("models")) {
    options.limits.models = items->empty() ? std::nullopt : std::optional(modelsOf(*items));
  }
}

void readOptions(const ActionArguments& arguments, ProxyOptions& options) {
  if (const auto strict = arguments.boolean("strict")) options.refuseUnknownFields = *strict;
  if (const auto text = arguments.text("velocityCents")) {
    options.velocityCentsPerMinute = arguments.integer("velocityCents");
    if (options.velocityCentsPerMinute && *options.velocityCentsPerMinute < 1) {
      throw ActionError("Choose at least $0.01 a minute, or off. Nothing was changed.");
    }
  }
  if (const auto pem = arguments.clearable("authority")) {
    if (*pem && (*pem)->size() > kMostAuthorityBytes) {
      throw ActionError("The authority's certificates may be at most 32 KB. Nothing was changed.");
    }
    if (*pem) const proxy::CurlTrust readable(*pem);
    options.authorityPem = *pem;
  }
  if (const auto address = arguments.clearable("outboundProxy")) {
    if (*address && !isProxyAddress(**address)) {
      throw ActionError(
          "Write the outbound proxy as http://host:port, without a name or password. Nothing was "
          "changed.");
    }
    options.outboundProxy = *address;
  }
}

}  // namespace

std::vector<std::string> proxyLimitsInWords(const std::string& stored) {
  const auto options = proxy::decodeOptions(stored);
  if (!options) return {noLimits()};
  std::vector<std::string> lines;
  const auto add = [&](const char* what, const std::string& value) {
    lines.push_back(std::string(what) + ": " + value + ".");
  };
  const proxy::ProxyDefaultLimits& limits = options->limits;
  add(kBudget, proxy::dollarsOf(limits.budgetCents));
  add(kCeiling, proxy::dollarsOf(limits.budgetCeilingCents));
  add(kLongest, secondsInWords(limits.longestSessionSeconds));
  add(kRate, std::to_string(limits.requestsPerMinute));
  add(kBody, std::to_string(limits.maxBodyBytes));
  add(kModels, inWords(limits.models));
  add(kUnknown, options->refuseUnknownFields ? "refused" : "passed on");
  add(kVelocity, options->velocityCentsPerMinute ? proxy::dollarsOf(*options->velocityCentsPerMinute) : "never");
  add(kAuthority, options->authorityPem ? "one that these settings name" : "none");
  add(kThrough, options->outboundProxy.value_or("no proxy"));
  return lines;
}

ActionPlan OwnerActionHandlers::proxyLimitsGet(const ActionArguments&, ActionCall&) {
  return answer([this] {
    const auto options = proxy::decodeOptions(ports_.vault.protection().settings->options);
    if (!options) throw ActionError(noLimits());
    base::JsonWriter out;
    out.raw(proxy::encodeOptions(*options));
    return withDocument(out);
  });
}

ActionPlan OwnerActionHandlers::proxyLimitsSet(const ActionArguments& arguments, ActionCall& call) {
  const auto before = proxy::decodeOptions(ports_.vault.protection().settings->options);
  if (!before) throw ActionError(noLimits());
  ProxyOptions now = *before;
  readLimits(arguments, now);
  readOptions(arguments, now);
  if (const auto problem = now.limits.problem()) throw ActionError(*problem + " Nothing was changed.");
  const auto run = [this, now, before = *before, access = access(call, arguments)] {
    // The question named what it widens, so it must still be what it was.
    if (proxy::decodeOptions(ports_.vault.protection().settings->options) != before) {
      throw ActionError("The proxy's limits were changed in the meantime. Nothing was changed by this. Try again.");
    }
    if (now != before) {
      ports_.vault.setProxyOptions(proxy::encodeOptions(now));
      ports_.vault.log(access);
    }
    base::JsonWriter out;
    out.raw(proxy::encodeOptions(now));
    return withDocument(out);
  };
  std::vector<std::string> more = widened(now, *before);
  if (more.empty()) return answer(run);
  return asking(call, "let programs do more through the local proxy", run, std::move(more));
}

}  // namespace sorvane::agent
