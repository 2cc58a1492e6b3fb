#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>

#include "app/phone_questions.h"
#include "app/stores.h"
#include "base/clock.h"
#include "base/mutex.h"
#include "phone/approver_server.h"
#include "platform/adapters.h"

namespace sorvane::app {

/// The name of the computer as a phone shows it, 1 to 64 characters.
std::string computerName();

/// PhoneLink has the server of the link to the paired phones and what it needs of this computer: the registry among the
/// sealed settings of the store, and the announcement on the local network. A store that needs no passphrase is read
/// while the vault is locked, too, so that a phone can open it; with one that is sealed the link closes when it is
/// locked. Any thread.
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

  /// Nothing for a link that is served, or that waits for its first phone; one whose registry could not be read is
  /// tried again.
  void open();
  void close();
  /// Another store is in use, or other values are in it: begins anew with what it says.
  void reopen();
  /// Whether it is known which phones are paired.
  bool isKnown() const;
  /// As `open`, with an empty registry for one that nothing can read any more. Only on the owner's word: the phones of
  /// the earlier one know another computer.
  void openReplacing();
  /// The vault was locked, and its store is closed.
  void locked();
  phone::ApproverServer& server() { return server_; }

  bool isServed() const override { return server_.isServed(); }
  bool isConnected() const override;
  PhoneYes unlockingYes() override;
  Answer ask(const phone::ApprovalDetails& details, const std::stop_token& withdrawn, Yes yes) override;

 private:
  class SealedRegistry;

  void openNow() REQUIRES(lifecycle_);
  void closeNow() REQUIRES(lifecycle_);
  /// Says on standard error who was paired.
  void notePhones();

  Stores& stores_;
  const std::function<void()> onChange_;
  const std::unique_ptr<SealedRegistry> registry_;
  const std::unique_ptr<phone::Announcer> announcer_ = platform::makeAnnouncer();
  // Held across the whole of opening and closing, so that they follow each other.
  base::Mutex lifecycle_;
  bool isOpen_ GUARDED_BY(lifecycle_) = false;
  // Of the server's thread.
  std::set<std::string> knownIds_;
  // Its thread ends before what is above.
  phone::ApproverServer server_;
};

}  // namespace sorvane::app
