#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "proxy/connection_channel.h"
#include "proxy/head_reader.h"
#include "proxy/server.h"

namespace sorvane::proxy {

/// ProxyExchange is one connection's request and its answer, on the connection's thread.
class ProxyExchange {
 public:
  ProxyExchange(LocalProxyServer& server, ProxyConnection& connection);

  /// Reads, checks and answers the request.
  void run();
  /// Answers that there is no place, without reading more of the request than its first line.
  void refuseBusy();

 private:
  using Refused = std::optional<ProxyRefusal>;
  using Check = Refused (ProxyExchange::*)();

  /// False when the client left before its head was whole, or the connection was cut.
  bool readHead();
  /// As far as it comes within a moment.
  void readFirstLine();
  /// The first refusal of the checks in their order.
  Refused check();

  // Each is one check of docs/proxy.md, in that order.
  Refused checkHost();
  Refused checkBrowser();
  Refused checkRoute();
  Refused checkMethod();
  Refused checkContentType();
  Refused checkToken();
  Refused checkProvider();
  Refused checkExpectation();
  Refused checkLength();
  Refused reserveBody();
  Refused readBody();
  Refused checkForwardedHeaders();

  /// The presented token; a refusal when it is not exactly one.
  Refused presentedToken(std::string_view& token) const;
  Refused refuseToken();
  void forward();
  /// How many bytes the client may still send, as far as they would be drained.
  std::int64_t unreadBytes() const;
  /// Reads on so that the client sees its answer rather than a reset.
  void drain();

  LocalProxyServer& server_;
  ProxyConnection& connection_;
  const std::string requestId_;
  const Deadline headDeadline_;
  ConnectionChannel channel_;
  ProxyHeadReader reader_;
  ProxyRequestHead head_;
  const ProxyRoute* route_ = nullptr;
  std::shared_ptr<const ProxyGrant> grant_;
  std::optional<ProxyBodyBudget::Share> share_;
  std::string body_;
  std::size_t bodyBytes_ = 0;  ///< of it that were read
  /// The client is gone or the connection was cut: nothing is answered.
  bool abandoned_ = false;
};

}  // namespace sorvane::proxy
