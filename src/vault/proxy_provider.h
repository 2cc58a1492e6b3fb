#pragma once

#include <optional>
#include <string_view>

namespace sorvane::vault {

/// A provider of model APIs whose keys the local proxy can stand in for. The stored words are the names of the cases;
/// lists go in this order.
enum class ProxyProvider { anthropic, openai, openrouter };
inline constexpr ProxyProvider kProxyProviders[] = {ProxyProvider::anthropic, ProxyProvider::openai,
                                                    ProxyProvider::openrouter};
std::string_view word(ProxyProvider provider);
/// As it is written in a sentence: "Anthropic", "OpenAI", "OpenRouter".
std::string_view shownName(ProxyProvider provider);
std::optional<ProxyProvider> proxyProviderOf(std::string_view word);

/// The provider whose keys look like `value`, by the beginning that each provider gives to its keys; nullopt when it
/// is no key of a known form.
std::optional<ProxyProvider> providerByShape(std::string_view value);
/// Whether the beginning is one provider's alone; the plain "sk-" is used by others, too.
bool isDistinctShape(std::string_view value);
/// Whether something of the form of a provider's key stands anywhere in `value`.
bool holdsKeyShape(std::string_view value);
/// The provider that the name of a variable or a secret tells, such as "ANTHROPIC_API_KEY" or "openai key"; nullopt
/// when it names none, or more than one.
std::optional<ProxyProvider> providerByName(std::string_view name);

}  // namespace sorvane::vault
