#include "proxy/refusal.h"

#include <array>
#include <utility>

#include "base/json_writer.h"

namespace sorvane::proxy {
namespace {

using Kind = ProxyRefusal::Kind;

std::string_view anthropicType(Kind kind) {
  switch (kind) {
    case Kind::invalidRequest:
    case Kind::misdirected:
      return "invalid_request_error";
    case Kind::authentication:
      return "authentication_error";
    case Kind::permission:
      return "permission_error";
    case Kind::notFound:
      return "not_found_error";
    case Kind::tooLarge:
      return "request_too_large";
    case Kind::rateLimit:
      return "rate_limit_error";
    case Kind::spendLimit:
      return "billing_error";
    case Kind::unavailable:
    case Kind::upstream:
      return "api_error";
  }
  return {};
}

std::string_view openaiType(Kind kind) {
  switch (kind) {
    case Kind::invalidRequest:
    case Kind::authentication:
    case Kind::permission:
    case Kind::notFound:
    case Kind::tooLarge:
    case Kind::misdirected:
      return "invalid_request_error";
    case Kind::rateLimit:
      return "rate_limit_exceeded";
    case Kind::spendLimit:
      return "insufficient_quota";
    case Kind::unavailable:
    case Kind::upstream:
      return "server_error";
  }
  return {};
}

// RFC 9110 15, and RFC 6585 for the later ones.
constexpr std::array<std::pair<int, std::string_view>, 23> kReasons{{
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {402, "Payment Required"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {408, "Request Timeout"},
    {411, "Length Required"},
    {413, "Content Too Large"},
    {414, "URI Too Long"},
    {415, "Unsupported Media Type"},
    {417, "Expectation Failed"},
    {421, "Misdirected Request"},
    {422, "Unprocessable Content"},
    {429, "Too Many Requests"},
    {431, "Request Header Fields Too Large"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
}};

}  // namespace

std::string_view reasonPhrase(int status) {
  for (const auto& [known, phrase] : kReasons) {
    if (known == status) return phrase;
  }
  return {};
}

std::string bodyOf(const ProxyRefusal& refusal, ProxyDialect dialect, std::string_view requestId) {
  base::JsonWriter json;
  json.beginObject();
  if (dialect == ProxyDialect::anthropic) {
    json.field("type", "error").key("error").beginObject();
    json.field("type", anthropicType(refusal.kind)).field("message", std::string_view(refusal.message)).endObject();
  } else {
    json.key("error").beginObject().field("message", std::string_view(refusal.message));
    json.field("type", openaiType(refusal.kind)).key("param").raw("null");
    json.field("code", std::string_view(refusal.code)).endObject();
  }
  json.field("request_id", requestId).endObject();
  return std::string(json.view());
}

namespace refusal {

ProxyRefusal rateLimited(int retryAfterSeconds) {
  return {429, Kind::rateLimit, "rate_limited", "This sorvane key is over its rate limit.", retryAfterSeconds};
}

ProxyRefusal tooManyCalls() {
  return {429, Kind::rateLimit, "rate_limited", "Too many calls are running at once on this sorvane key.", 1};
}

ProxyRefusal spendLimitReached() {
  return {402, Kind::spendLimit, "spend_limit_reached",
          "This sorvane key's spend limit is reached, counting calls still running.", std::nullopt};
}

ProxyRefusal invalidKey() {
  return {401, Kind::authentication, "invalid_api_key",
          "This sorvane key is not valid: it is unknown, revoked or expired.", std::nullopt};
}

ProxyRefusal proxyUnavailable() {
  return {503, Kind::unavailable, "proxy_unavailable", "The sorvane proxy is unavailable. Retry shortly.",
          std::nullopt};
}

}  // namespace refusal
}  // namespace sorvane::proxy
