#include "proxy/upstream_request.h"

#include <algorithm>
#include <array>

namespace sorvane::proxy {
namespace {

constexpr std::string_view kDefaultAnthropicVersion = "2023-06-01";
/// Identifiers that any provider may be told. The server has checked their form.
constexpr std::array<std::string_view, 2> kIdentifiers = {"idempotency-key", "x-client-request-id"};

bool isPlainQuery(std::string_view query) {
  constexpr std::string_view others = "_=&.-";
  return query.size() <= kMostQueryBytes && std::ranges::all_of(query, [&](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                  others.find(c) != std::string_view::npos;
         });
}

base::SecretText credentialHeader(const ProxyCredential& credential) {
  base::SecretText header(credential.provider == ProxyProvider::anthropic ? "x-api-key: " : "Authorization: Bearer ");
  header.append(credential.value.view());
  return header;
}

void addAnthropicHeaders(const ProxyRequestHead& head, UpstreamRequest& upstream) {
  const std::string* const version = head.header("anthropic-version");
  upstream.headers.push_back({"anthropic-version", version ? *version : std::string(kDefaultAnthropicVersion)});
  if (const std::string* const beta = head.header("anthropic-beta")) {
    upstream.headers.push_back({"anthropic-beta", *beta});
  }
}

}  // namespace

const std::string& ProxyOrigins::of(ProxyProvider provider) const {
  switch (provider) {
    case ProxyProvider::anthropic:
      return anthropic;
    case ProxyProvider::openai:
      return openai;
    case ProxyProvider::openrouter:
      break;
  }
  return openrouter;
}

UpstreamRequest upstreamRequestOf(const ProxyForwardRequest& request, const ProxyCredential& credential,
                                  const ProxyOrigins& origins, std::string_view body) {
  const ProxyProvider provider = request.route.provider;
  UpstreamRequest upstream;
  upstream.provider = provider;
  upstream.url = origins.of(provider) + std::string(request.route.upstream);
  upstream.headers.push_back({"content-type", "application/json"});
  if (provider == ProxyProvider::anthropic) {
    if (request.head.query && !request.head.query->empty() && isPlainQuery(*request.head.query)) {
      upstream.url.append("?").append(*request.head.query);
    }
    addAnthropicHeaders(request.head, upstream);
  }
  for (const std::string_view name : kIdentifiers) {
    if (const std::string* const value = request.head.header(name)) {
      upstream.headers.push_back({std::string(name), *value});
    }
  }
  upstream.credential = credentialHeader(credential);
  upstream.body = body;
  upstream.timeLimit = std::chrono::seconds(request.grant->limits.callTimeoutSeconds);
  return upstream;
}

}  // namespace sorvane::proxy
