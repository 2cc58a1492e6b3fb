#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "base/mutex.h"
#include "proxy/call_record.h"
#include "proxy/forward_request.h"
#include "proxy/meter.h"
#include "proxy/price_book.h"
#include "proxy/transport.h"
#include "proxy/upstream_request.h"

namespace sorvane::proxy {

/// CallSlots counts the calls of each grant that are in flight. Any thread.
class CallSlots {
 public:
  /// False when `most` are in flight already.
  bool take(const std::string& lookupId, int most);
  void leave(const std::string& lookupId);

 private:
  base::Mutex mutex_;
  std::map<std::string, int, std::less<>> taken_ GUARDED_BY(mutex_);
};

/// LocalProxyForwarder reserves the worst that a call may cost, sends it with the real key, streams the answer back,
/// settles what it did cost and records it. A call of which a byte may have left is charged; any other is released.
class LocalProxyForwarder final : public ProxyForwarding {
 public:
  /// All are borrowed for the forwarder's life; the functions are called from any thread and must not throw.
  struct Parts {
    ProxyMeter& meter;
    ProxyCallLog& log;
    ProxyTransport& transport;
    const base::Clock& clock;
    std::function<std::shared_ptr<const PriceBook>()> prices;
    std::function<bool()> refuseUnknownFields;
    ProxyOrigins origins{};
  };

  explicit LocalProxyForwarder(Parts parts) : parts_(std::move(parts)) {}
  void forward(ProxyForwardRequest request) override;

 private:
  class Call;

  void admit(ProxyForwardRequest& request);

  const Parts parts_;
  CallSlots slots_;
};

}  // namespace sorvane::proxy
