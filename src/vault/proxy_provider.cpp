#include "vault/proxy_provider.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

namespace sorvane::vault {
namespace {

using Marked = std::pair<std::string_view, ProxyProvider>;

// The first that fits decides, so that the general "sk-" comes last.
constexpr std::array kKeyBeginnings{
    Marked{"sk-ant-", ProxyProvider::anthropic},
    Marked{"sk-or-", ProxyProvider::openrouter},
    Marked{"sk-", ProxyProvider::openai},
};
constexpr std::array kNameParts{
    Marked{"anthropic", ProxyProvider::anthropic},    Marked{"claude", ProxyProvider::anthropic},
    Marked{"openai", ProxyProvider::openai},          Marked{"openrouter", ProxyProvider::openrouter},
    Marked{"open_router", ProxyProvider::openrouter},
};
/// Shortest text that is taken for a key, so that "sk-" alone is none.
constexpr std::size_t kShortestKey = 20;

bool isKeyCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

}  // namespace

std::string_view word(ProxyProvider provider) {
  switch (provider) {
    case ProxyProvider::anthropic:
      return "anthropic";
    case ProxyProvider::openai:
      return "openai";
    case ProxyProvider::openrouter:
      return "openrouter";
  }
  return "";
}

std::string_view shownName(ProxyProvider provider) {
  switch (provider) {
    case ProxyProvider::anthropic:
      return "Anthropic";
    case ProxyProvider::openai:
      return "OpenAI";
    case ProxyProvider::openrouter:
      return "OpenRouter";
  }
  return "";
}

std::optional<ProxyProvider> proxyProviderOf(std::string_view text) {
  for (const ProxyProvider provider : kProxyProviders) {
    if (word(provider) == text) return provider;
  }
  return std::nullopt;
}

std::optional<ProxyProvider> providerByShape(std::string_view value) {
  if (value.size() < kShortestKey || !std::all_of(value.begin(), value.end(), isKeyCharacter)) return std::nullopt;
  for (const auto& [beginning, provider] : kKeyBeginnings) {
    if (value.starts_with(beginning)) return provider;
  }
  return std::nullopt;
}

bool isDistinctShape(std::string_view value) {
  constexpr std::array<std::string_view, 5> kDistinct{"sk-ant-", "sk-or-", "sk-proj-", "sk-svcacct-", "sk-admin-"};
  return providerByShape(value) && std::any_of(kDistinct.begin(), kDistinct.end(), [&](std::string_view beginning) {
           return value.starts_with(beginning);
         });
}

bool holdsKeyShape(std::string_view value) {
  for (std::size_t at = value.find("sk-"); at != std::string_view::npos; at = value.find("sk-", at + 1)) {
    const auto* const end = std::find_if_not(value.begin() + at, value.end(), isKeyCharacter);
    if (static_cast<std::size_t>(end - (value.begin() + at)) >= kShortestKey) return true;
  }
  return false;
}

std::optional<ProxyProvider> providerByName(std::string_view name) {
  std::string lower(name);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  std::optional<ProxyProvider> found;
  for (const auto& [part, provider] : kNameParts) {
    if (lower.find(part) == std::string::npos) continue;
    if (found && *found != provider) return std::nullopt;
    found = provider;
  }
  return found;
}

}  // namespace sorvane::vault
