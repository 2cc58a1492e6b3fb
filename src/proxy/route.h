#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "proxy/limits.h"

namespace sorvane::proxy {

/// The form that a provider's answers and errors have.
enum class ProxyDialect { anthropic, openai };

enum class ProxyOperation { messages, chatCompletions, responses, embeddings };
/// "messages", "chat.completions", "responses", "embeddings".
std::string_view shownName(ProxyOperation operation);

/// ProxyRoute is one endpoint that the proxy serves. All are POST.
struct ProxyRoute {
  ProxyProvider provider = ProxyProvider::anthropic;
  ProxyDialect dialect = ProxyDialect::anthropic;
  ProxyOperation operation = ProxyOperation::messages;
  std::string_view path;      ///< as the client asks for it, such as "/anthropic/v1/messages"
  std::string_view upstream;  ///< the path on the provider's origin, such as "/v1/messages"
};

/// nullptr when nothing is served under the path. The query is not part of it.
const ProxyRoute* routeOf(std::string_view path);
/// The dialect in which an unknown path or target is refused: by its provider's prefix, else OpenAI's.
ProxyDialect dialectOf(std::string_view path);

/// What a client's base URL ends with behind the proxy's address: "/anthropic", "/openai/v1", "/openrouter/api/v1".
std::string_view baseUrlPath(ProxyProvider provider);

}  // namespace sorvane::proxy
