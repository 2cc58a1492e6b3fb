#pragma once

#include <chrono>
#include <optional>
#include <span>
#include <string>

#include "approver/pair_link.h"
#include "approver/terminal.h"
#include "base/descriptor.h"
#include "base/secret_text.h"

namespace sorvane::approver {

/// Connection is a TCP connection to the computer. One thread; nothing blocks but `open`.
class Connection {
 public:
  /// Tries each address of the place in turn, each for at most `limit`. nullopt when none answers. Throws Interrupted.
  static std::optional<Connection> open(const Place& place, std::chrono::milliseconds limit,
                                        const StopSignals& signals);

  int descriptor() const { return socket_.get(); }
  /// What has come; empty when nothing has. nullopt: the connection has ended.
  std::optional<base::Bytes> receive();
  /// Keeps the bytes and sends as many as go out now; false: the connection has ended.
  bool send(std::string_view bytes);
  /// Whether some still have to go out.
  bool isSending() const { return !unsent_.empty(); }

 private:
  explicit Connection(base::Descriptor socket);

  base::Descriptor socket_;
  std::string unsent_;
};

}  // namespace sorvane::approver
