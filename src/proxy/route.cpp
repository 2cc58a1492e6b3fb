#include "proxy/route.h"

#include <algorithm>
#include <array>

namespace sorvane::proxy {
namespace {

using enum ProxyProvider;
using enum ProxyOperation;

// Every endpoint that is served. There is no other.
constexpr std::array kRoutes{
    ProxyRoute{anthropic, ProxyDialect::anthropic, messages, "/anthropic/v1/messages", "/v1/messages"},
    ProxyRoute{openai, ProxyDialect::openai, chatCompletions, "/openai/v1/chat/completions", "/v1/chat/completions"},
    ProxyRoute{openai, ProxyDialect::openai, responses, "/openai/v1/responses", "/v1/responses"},
    ProxyRoute{openai, ProxyDialect::openai, embeddings, "/openai/v1/embeddings", "/v1/embeddings"},
    ProxyRoute{openrouter, ProxyDialect::openai, chatCompletions, "/openrouter/api/v1/chat/completions",
               "/api/v1/chat/completions"},
};

}  // namespace

std::string_view shownName(ProxyOperation operation) {
  switch (operation) {
    case messages:
      return "messages";
    case chatCompletions:
      return "chat.completions";
    case responses:
      return "responses";
    case embeddings:
      return "embeddings";
  }
  return {};
}

const ProxyRoute* routeOf(std::string_view path) {
  for (const ProxyRoute& route : kRoutes) {
    if (route.path == path) return &route;
  }
  return nullptr;
}

ProxyDialect dialectOf(std::string_view path) {
  constexpr std::string_view prefix = "/anthropic";
  const std::string_view rest = path.substr(std::min(path.size(), prefix.size()));
  const bool ends = rest.empty() || rest.front() == '/' || rest.front() == '?';
  return path.starts_with(prefix) && ends ? ProxyDialect::anthropic : ProxyDialect::openai;
}

std::string_view baseUrlPath(ProxyProvider provider) {
  switch (provider) {
    case anthropic:
      return "/anthropic";
    case openai:
      return "/openai/v1";
    case openrouter:
      return "/openrouter/api/v1";
  }
  return {};
}

}  // namespace sorvane::proxy
