#pragma once

#include <string>
#include <vector>

#include "agent/vault_actions.h"
#include "app/stores.h"

namespace sorvane::app {

/// ApplicationActions is the part of the owner's actions that stands above the agent room. Any thread.
class ApplicationActions final : public agent::VaultActions {
 public:
  ApplicationActions(agent::ApplicationState state, Stores& stores) : state_(std::move(state)), stores_(stores) {}

  agent::ApplicationState state() override;
  agent::StoreState store() override;
  std::int64_t storeItems() override;
  void checkStoreMove(const std::string& to) override;
  std::optional<std::string> moveStore(const std::string& to, const agent::Jobs::Step& step) override;

 private:
  // Constant after construction.
  const agent::ApplicationState state_;
  Stores& stores_;
};

}  // namespace sorvane::app
