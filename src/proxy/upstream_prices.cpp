#include "proxy/upstream_prices.h"

#include <utility>

namespace sorvane::proxy {
namespace {

constexpr std::string_view kModelsPath = "/api/v1/models";
constexpr std::chrono::seconds kTimeLimit{60};

/// Keeps an answer whole, up to the bound.
class PriceListReceiver final : public UpstreamReceiver {
 public:
  bool head(UpstreamHead head) override {
    status_ = head.status;
    return status_ == 200;
  }
  bool body(std::string_view bytes, UpstreamPiece) override {
    tooLong_ = bytes.size() > kMostPriceListBytes - list_.size();
    if (!tooLong_) list_.append(bytes);
    return !tooLong_;
  }
  std::string take() { return std::move(list_); }
  bool isTooLong() const { return tooLong_; }
  int status() const { return status_; }

 private:
  std::string list_;
  bool tooLong_ = false;
  int status_ = 0;
};

std::string reasonOf(const PriceListReceiver& receiver) {
  if (receiver.isTooLong()) return "it is longer than 16 MB";
  if (receiver.status() != 0 && receiver.status() != 200) {
    return "OpenRouter answered with status " + std::to_string(receiver.status());
  }
  return "OpenRouter could not be reached, or the connection was lost";
}

}  // namespace

std::string fetchOpenRouterPrices(ProxyTransport& transport, const ProxyOrigins& origins, std::stop_token stop) {
  UpstreamRequest request;
  request.provider = ProxyProvider::openrouter;
  request.url = origins.openrouter + std::string(kModelsPath);
  request.timeLimit = kTimeLimit;
  PriceListReceiver receiver;
  const UpstreamResult result = transport.send(request, receiver, {.stop = std::move(stop), .client = -1});
  if (result.error || receiver.status() != 200) {
    throw PriceListError("The list of OpenRouter's prices was not fetched: " + reasonOf(receiver) +
                         ". The prices that sorvane has stay as they are. Try again later.");
  }
  return receiver.take();
}

}  // namespace sorvane::proxy
