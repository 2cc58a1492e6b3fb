#pragma once

#include <cstddef>
#include <stop_token>
#include <string>

#include "base/error.h"
#include "proxy/transport.h"
#include "proxy/upstream_request.h"

namespace sorvane::proxy {

/// The list of models is some megabytes; a longer one is not read.
inline constexpr std::size_t kMostPriceListBytes = 16 * 1024 * 1024;

/// The list could not be fetched; the prices that stand are kept.
class PriceListError : public base::Error {
 public:
  using Error::Error;
};

/// The bytes of OpenRouter's list of models and their prices, fetched without any credential. Throws PriceListError.
/// Blocks for a minute at most.
std::string fetchOpenRouterPrices(ProxyTransport& transport, const ProxyOrigins& origins, std::stop_token stop = {});

}  // namespace sorvane::proxy
