#pragma once

#include <memory>
#include <optional>
#include <string>

#include "proxy/curl_trust.h"

namespace sorvane::proxy {

/// What every connection to a provider has in common.
struct TransportSettings {
  std::string version;  ///< the application's, for the user agent
  std::optional<std::string> authorityPem;
  std::optional<std::string> outboundProxy;  ///< "http://host:port"; absent: none, whatever the environment says
  CurlTls tls = linkedTls();
};

/// CurlShared holds what lines have in common: settings, authorities, resolved names and TLS sessions. A change of the
/// settings makes a new one, so that no session outlives the authorities it was verified by. Immutable but for curl's
/// own caches, which it locks.
class CurlShared {
 public:
  /// Throws AuthorityError.
  explicit CurlShared(TransportSettings settings);
  CurlShared(const CurlShared&) = delete;
  CurlShared& operator=(const CurlShared&) = delete;

  const TransportSettings& settings() const { return settings_; }
  const CurlTrust& trust() const { return trust_; }
  /// curl's share handle.
  void* handle() const { return handle_.get(); }

 private:
  struct Locks;
  struct FreeLocks {
    void operator()(Locks* locks) const;
  };
  struct Free {
    void operator()(void* share) const;
  };

  const TransportSettings settings_;
  const CurlTrust trust_;
  const std::unique_ptr<Locks, FreeLocks> locks_;
  const std::unique_ptr<void, Free> handle_;
};

}  // namespace sorvane::proxy
