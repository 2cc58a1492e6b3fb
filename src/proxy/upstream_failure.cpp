#include "proxy/upstream_failure.h"

#include <string>

namespace sorvane::proxy {
namespace {

ProxyRefusal upstream(int status, std::string code, std::string message) {
  return {.status = status,
          .kind = ProxyRefusal::Kind::upstream,
          .code = std::move(code),
          .message = std::move(message),
          .retryAfterSeconds = std::nullopt};
}

}  // namespace

ProxyRefusal refusalOf(const UpstreamResult& result, ProxyProvider provider) {
  const std::string name(shownName(provider));
  if (!result.error) return refusal::proxyUnavailable();
  switch (*result.error) {
    case ProxyTransportError::notSent:
      return upstream(502, "provider_unreachable",
                      "sorvane could not reach " + name +
                          ". Nothing was sent and nothing is charged. Check the network and try again.");
    case ProxyTransportError::mayHaveBeenSent:
      if (result.badAnswer) {
        return upstream(502, "provider_answer_invalid",
                        "The answer of " + name +
                            " was malformed and was not passed on. The call may be charged. Try again later.");
      }
      return upstream(
          502, "provider_connection_lost",
          "The connection to " + name + " was lost before its answer was whole. The call may be charged. Try again.");
    case ProxyTransportError::redirected:
      return upstream(502, "provider_redirected",
                      name +
                          " answered with a redirect, which sorvane does not follow. The call may be charged. Check "
                          "whether the network is signed in, then try again.");
    case ProxyTransportError::timedOut:
      return upstream(504, "provider_timeout",
                      name +
                          " took longer than a call through sorvane may last, so the call was stopped. It may be "
                          "charged. Try again with a smaller request, or ask for a streamed answer.");
    case ProxyTransportError::cancelled:
      break;
  }
  return refusal::proxyUnavailable();
}

}  // namespace sorvane::proxy
