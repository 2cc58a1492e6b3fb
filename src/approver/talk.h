#pragma once

#include <functional>
#include <string>

#include "approver/connection.h"
#include "approver/link.h"
#include "approver/questions.h"
#include "approver/terminal.h"

namespace sorvane::approver {

/// Talk is one link over one connection, with the person at the terminal: it goes on until either ends. One thread.
class Talk {
 public:
  struct Ports {
    Terminal& terminal;
    const StopSignals& signals;
    const base::Clock& clock;
  };
  /// Called once the computer has proved who it is, by the name that it gives itself.
  using OnOpen = std::function<void(const std::string& macName)>;

  Talk(const Ports& ports, Connection connection, Link& link, OnOpen onOpen);

  enum class End {
    lost,           ///< the connection went, or the computer was silent for too long
    unreadable,     ///< as LinkError::Case
    wrongComputer,  ///< as LinkError::Case
    refused,        ///< the computer does not know this device, or did not take the code
    unpaired,       ///< the computer ended the pairing
    terminalGone,   ///< nobody can answer any more
  };
  /// Until the computer has proved who it is: nullopt then.
  std::optional<End> open() { return run(Until::open); }
  /// Until the end.
  End serve() { return *run(Until::end); }
  /// Tells the computer that the pairing ends, and waits a little until that has gone out.
  void unpair();

  /// The computer's time for each step of the handshake, and for the rest of a frame (docs/phone-link.md, Limits).
  static constexpr std::chrono::seconds kPatience{10};

 private:
  enum class Until { open, end };
  std::optional<End> run(Until until);
  std::optional<End> step();
  void wait();
  void takeTyped();
  std::optional<End> takeReceived();
  std::optional<End> handle(const Link::Event& event);
  std::optional<base::Instant> deadline() const;

  const Ports ports_;
  Connection connection_;
  Link& link_;
  const OnOpen onOpen_;
  Questions questions_;
  /// When the computer has been silent for too long; none while it may be.
  std::optional<base::Instant> silentUntil_;
};

}  // namespace sorvane::approver
