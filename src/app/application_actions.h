#pragma once

#include <string>
#include <vector>

#include "agent/owner_proxy.h"
#include "agent/vault_actions.h"
#include "app/stores.h"
#include "clients/connections.h"

namespace sorvane::app {

/// ApplicationActions is the part of the owner's actions that stands above the agent room. Any thread.
class ApplicationActions final : public agent::VaultActions {
 public:
  ApplicationActions(agent::ApplicationState state, Stores& stores, clients::Connections& connections,
                     agent::OwnerProxy& proxy)
      : state_(std::move(state)), stores_(stores), connections_(connections), proxy_(proxy) {}

  agent::ApplicationState state() override;
  agent::StoreState store() override;
  std::int64_t storeItems() override;
  void checkStoreMove(const std::string& to) override;
  std::optional<std::string> moveStore(const std::string& to, const agent::Jobs::Step& step) override;

  std::vector<agent::ClientConnection> clients() override;
  agent::ClientConnection client(const std::string& client, const std::string& project) override;
  agent::ClientConnection planClient(const std::string& client, const std::string& project) override;
  void connectClient(const agent::ClientConnection& plan, const ClientGrantToWrite& grant) override;
  std::string disconnectClient(const std::string& client, const std::string& project) override;
  std::vector<agent::FolderFinding> scan(const std::string& folder) override;
  void removeVault() override;

 private:
  // Constant after construction.
  const agent::ApplicationState state_;
  Stores& stores_;
  clients::Connections& connections_;
  agent::OwnerProxy& proxy_;
};

}  // namespace sorvane::app
