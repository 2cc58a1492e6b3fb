#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "base/descriptor.h"
#include "platform/linux/bus_wire.h"

namespace sorvane::platform {

/// BusLink is one connection to the system bus for a program that cannot use the system's library. Used by one thread.
class BusLink {
 public:
  using Deadline = std::chrono::steady_clock::time_point;

  /// Connects and says hello, by `deadline`.
  explicit BusLink(Deadline deadline);

  /// Whether there is a bus at the other end. Once false it stays so.
  explicit operator bool() const { return static_cast<bool>(socket_); }
  /// Sends and returns the serial that the message got; 0 when the bus is gone.
  std::uint32_t send(BusMessage message);
  /// The next message that can be read; nullopt at the deadline, when the descriptor `wake` (-1: none) is readable, and
  /// when the bus is gone.
  std::optional<BusMessage> receive(std::optional<Deadline> deadline, int wake = -1);
  /// Calls and waits for the answer, a reply or an error. Other messages that come meanwhile are dropped.
  std::optional<BusMessage> call(BusMessage message, Deadline deadline);

 private:
  bool connectTo(const std::string& path);
  bool authenticate(Deadline deadline);
  bool sendAll(std::string_view bytes);
  /// Adds what arrives to `received_`; false as `receive`.
  bool readMore(std::optional<Deadline> deadline, int wake);

  base::Descriptor socket_;
  std::string received_;
  std::uint32_t lastSerial_ = 0;
};

}  // namespace sorvane::platform
