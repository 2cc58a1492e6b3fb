#pragma once

#include <cstdint>
#include <optional>

namespace sorvane::proxy {

/// ProxyServing is the server as the broker runs it. The broker calls start and stop one at a time, `port` at any time.
class ProxyServing {
 public:
  virtual ~ProxyServing() = default;
  /// Listens on a port of the loopback interface that the system chooses, and returns it. Throws base::Error.
  virtual std::uint16_t start() = 0;
  /// Closes the listener and every connection. Does nothing while it is stopped.
  virtual void stop() = 0;
  /// nullopt while it is stopped.
  virtual std::optional<std::uint16_t> port() const = 0;
};

}  // namespace sorvane::proxy
