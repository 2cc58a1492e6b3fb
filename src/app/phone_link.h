#pragma once

#include <functional>
#include <memory>
#include <string>

#include "app/phone_questions.h"
#include "app/stores.h"
#include "base/clock.h"
#include "phone/approver_server.h"
#include "platform/linux/avahi_announcer.h"

namespace sorvane::app {

/// The name of the computer as a phone shows it, 1 to 64 characters.
std::string computerName();

/// PhoneLink has the server of the link to the paired phones and what it needs of this computer: the registry among the
/// sealed settings of the store, and the announcement on the local network. A store that needs no passphrase is read
/// while the vault is locked, too, so that a phone can open it; with one that is sealed the link closes when it is
/// locked. `open` and `close` on one thread, all else on any.
class PhoneLink final : public PhoneQuestions {
 public:
  struct Ports {
    Stores& stores;
    const base::Clock& clock;
    /// Told on the server's thread when a phone was paired, came, went or was revoked.
    std::function<void()> onChange;
  };
  explicit PhoneLink(Ports ports);
  ~PhoneLink() override;

  /// Nothing for a link that is served already; one whose registry could not be read is tried again.
  void open();
  void close();
  /// The vault was locked, and its store is closed.
  void locked();
  phone::ApproverServer& server() { return server_; }

  bool isServed() const override { return server_.isServed(); }
  bool isConnected() const override;
  Answer ask(const phone::ApprovalDetails& details, const std::stop_token& withdrawn) override;

 private:
  class SealedRegistry;

  Stores& stores_;
  const std::unique_ptr<SealedRegistry> registry_;
  platform::AvahiAnnouncer announcer_;
  phone::ApproverServer server_;
  // Of the thread that opens and closes.
  bool isOpen_ = false;
};

}  // namespace sorvane::app
