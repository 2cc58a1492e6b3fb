#pragma once

#include <functional>
#include <list>
#include <memory>
#include <optional>

#include "base/clock.h"
#include "base/open_descriptors.h"
#include "phone/link.h"

struct sockaddr;

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
  /// What a connection from an address is counted with.
  using SourceOf = std::function<std::string(const sockaddr&)>;
  /// `turn` returns when `wake` can be read, and empties it.
  Links(const base::Clock& clock, int wake, Handler& handler, SourceOf sourceOf)
      : clock_(clock), wake_(wake), handler_(handler), sourceOf_(std::move(sourceOf)) {}

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
  /// Empty where nobody is there any more.
  std::string sourceOf(int socket) const;
  void serveLink(Link& link, short happened);

  const base::Clock& clock_;
  const int wake_;
  Handler& handler_;
  const SourceOf sourceOf_;
  base::Descriptor listener_;
  std::uint16_t port_ = 0;
  std::optional<base::Instant> restsUntil_;  ///< accepting; the system lacks descriptors or memory
  All links_;
};

}  // namespace sorvane::phone
