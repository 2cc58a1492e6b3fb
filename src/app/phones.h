#pragma once

#include <deque>

#include "agent/owner_phones.h"
#include "app/phone_link.h"
#include "base/clock.h"
#include "base/mutex.h"
#include "phone/approver_server.h"

namespace sorvane::app {

/// Phones translates between the owner's actions and the link to the paired phones. Any thread.
class Phones final : public agent::OwnerPhones {
 public:
  Phones(PhoneLink& link, const base::Clock& clock) : link_(link), server_(link.server()), clock_(clock) {}

  bool isAnyPaired() override;
  bool isListKnown() override { return link_.isKnown(); }
  void checkPairing() override;
  std::string beginPairing(Unreadable unreadable) override;
  std::string pairing() override;
  void cancelPairing() override { server_.cancelPairing(); }
  std::string list() override;
  Phone find(const std::string& phone) override;
  void revoke(const std::string& id) override { server_.revoke(id); }
  std::string test(const std::string& requestor, const std::stop_token& withdrawn) override;

 private:
  class Test;

  PhoneLink& link_;
  phone::ApproverServer& server_;
  const base::Clock& clock_;
  // Guarded. A leaf.
  base::Mutex mutex_;
  bool isTesting_ GUARDED_BY(mutex_) = false;
  std::deque<base::Instant> tests_ GUARDED_BY(mutex_);  ///< when the latest began
};

}  // namespace sorvane::app
