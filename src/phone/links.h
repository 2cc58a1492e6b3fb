#pragma once

#include <list>
#include <memory>
#include <optional>

#include "base/clock.h"
#include "base/open_descriptors.h"
#include "phone/link.h"

namespace sorvane::phone {

/// Links is the listener and every link of it, with the limits that hold before anybody has said who they are. One
/// thread, but for the descriptor `wake`.
class Links {
 public:
  /// What happens on a link. It may send, and it ends links through Link alone.
  class Handler {
   public:
    virtual ~Handler() = default;
    virtual void begun(Link& link) = 0;
    virtual void frame(Link& link, const std::string& body) = 0;
    /// A link has ended by its own fault, which is not LinkFault::none.
    virtual void broke(Link& link) = 0;
    /// A link that was served is gone.
    virtual void gone(const Link& link) = 0;
  };
  /// `turn` returns when `wake` can be read, and empties it.
  Links(const base::Clock& clock, int wake, Handler& handler) : clock_(clock), wake_(wake), handler_(handler) {}

  /// Listens on every address of this computer, IPv4 and IPv6, on `port` where it is free and not 0. Throws PhoneError.
  void listen(std::uint16_t port);
  /// Also ends the links that are not served.
  void stopListening();
  bool isListening() const { return static_cast<bool>(listener_); }
  std::uint16_t port() const { return port_; }

  using All = std::list<std::unique_ptr<Link>>;
  All& all() { return links_; }

  /// Waits for the next thing to do, until `deadline` at most, and does it. Blocks on nothing else.
  void turn(const std::optional<base::Instant>& deadline);
  /// Lets go of the links that have ended.
  void sweep();

 private:
  std::optional<base::Instant> nearest(std::optional<base::Instant> deadline) const;
  void serveListener();
  void accept(base::Descriptor socket);
  void serveLink(Link& link, short happened);

  const base::Clock& clock_;
  const int wake_;
  Handler& handler_;
  base::Descriptor listener_;
  std::uint16_t port_ = 0;
  std::optional<base::Instant> restsUntil_;  ///< accepting; the system lacks descriptors or memory
  All links_;
};

}  // namespace sorvane::phone
