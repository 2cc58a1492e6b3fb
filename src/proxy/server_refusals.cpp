#include "proxy/server_refusals.h"

namespace sorvane::proxy::refusal {
namespace {

using Kind = ProxyRefusal::Kind;

// A connection is free again as soon as one of the others is answered.
constexpr int kBusyRetrySeconds = 1;

ProxyRefusal plain(int status, Kind kind, std::string_view code, std::string_view message) {
  return {status, kind, std::string(code), std::string(message), std::nullopt};
}

std::string shownSize(std::int64_t bytes) {
  constexpr std::int64_t kilobyte = 1024, megabyte = 1024 * kilobyte;
  if (bytes > 0 && bytes % megabyte == 0) return std::to_string(bytes / megabyte) + " MB";
  if (bytes > 0 && bytes % kilobyte == 0) return std::to_string(bytes / kilobyte) + " KB";
  return std::to_string(bytes) + " bytes";
}

}  // namespace

ProxyRefusal busy() {
  return {503, Kind::unavailable, "proxy_busy", "The sorvane proxy is busy. Retry shortly.", kBusyRetrySeconds};
}

ProxyRefusal headTimedOut() {
  return plain(408, Kind::invalidRequest, "request_timeout", "The request head did not arrive in time.");
}

ProxyRefusal misdirected() {
  return plain(421, Kind::misdirected, "misdirected_request", "This address is not one the sorvane proxy answers on.");
}

ProxyRefusal browser() {
  return plain(403, Kind::permission, "browser_request_refused", "The sorvane proxy does not answer browser requests.");
}

ProxyRefusal noSuchEndpoint() {
  return plain(404, Kind::notFound, "not_found", "The sorvane proxy has no such endpoint.");
}

ProxyRefusal methodNotAllowed() {
  return plain(405, Kind::invalidRequest, "method_not_allowed", "The request is not one the sorvane proxy accepts.");
}

ProxyRefusal notJson() {
  return plain(415, Kind::invalidRequest, "unsupported_media_type", "Send the body as application/json.");
}

ProxyRefusal ambiguousCredentials() {
  return plain(400, Kind::invalidRequest, "ambiguous_credentials", "Send one sorvane key, in one header.");
}

ProxyRefusal tooManyInvalidKeys(int retryAfterSeconds) {
  return {429, Kind::rateLimit, "rate_limited",
          "Too many sorvane keys that are not valid were sent within a minute. Wait, then send a valid one.",
          retryAfterSeconds};
}

ProxyRefusal providerNotSetUp(ProxyProvider provider) {
  return plain(403, Kind::permission, "provider_not_set_up",
               "This sorvane key is not set up for " + std::string(vault::shownName(provider)) + ".");
}

ProxyRefusal expectationFailed() {
  return plain(417, Kind::invalidRequest, "expectation_failed", "Only 100-continue is supported.");
}

ProxyRefusal lengthRequired() {
  return plain(411, Kind::invalidRequest, "length_required", "Send a Content-Length with the request.");
}

ProxyRefusal bodyTooLarge(std::int64_t limitBytes) {
  return plain(413, Kind::tooLarge, "request_too_large",
               "The request body is larger than " + shownSize(limitBytes) + ".");
}

ProxyRefusal bodyTimedOut() {
  return plain(408, Kind::invalidRequest, "request_timeout", "The request body did not arrive in time.");
}

ProxyRefusal moreThanTold() {
  return plain(400, Kind::invalidRequest, "extra_bytes",
               "The request carries more bytes than its Content-Length says.");
}

ProxyRefusal invalidHeader(std::string_view name) {
  return plain(400, Kind::invalidRequest, "invalid_header",
               "The `" + std::string(name) + "` header is not in a form the sorvane proxy forwards.");
}

}  // namespace sorvane::proxy::refusal
