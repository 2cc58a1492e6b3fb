#pragma once

#include "agent/owner_phones.h"
#include "phone/approver_server.h"

namespace sorvane::app {

/// Phones translates between the owner's actions and the link to the paired phones. Any thread.
class Phones final : public agent::OwnerPhones {
 public:
  explicit Phones(phone::ApproverServer& server) : server_(server) {}

  bool isAnyPaired() override;
  std::string beginPairing() override;
  std::string pairing() override;
  void cancelPairing() override { server_.cancelPairing(); }
  std::string list() override;
  Phone find(const std::string& phone) override;
  void revoke(const std::string& id) override { server_.revoke(id); }
  std::string test(const std::string& requestor, const std::stop_token& withdrawn) override;

 private:
  phone::ApproverServer& server_;
};

}  // namespace sorvane::app
