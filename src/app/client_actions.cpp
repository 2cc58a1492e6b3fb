#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "app/application_actions.h"
#include "base/support_folder.h"
#include "clients/config_file.h"
#include "unlock/vault_switch.h"
#include "vault/config_scan.h"
#include "vault/import_walk.h"
#include "vault/vault.h"

namespace sorvane::app {
namespace {

agent::ClientConnection connectionOf(const clients::Connections::Status& status) {
  agent::ClientConnection connection;
  connection.client = status.target.client->word;
  connection.name = status.target.client->name;
  connection.project = status.target.project;
  connection.file = status.file;
  connection.found = status.found;
  connection.state = word(status.state);
  connection.grantId = status.grantId;
  connection.runsUnasked = status.runsUnasked;
  connection.problem = status.problem;
  return connection;
}

void add(std::vector<agent::FolderFinding>& findings, const std::string& file,
         const std::vector<vault::ScanFinding>& found) {
  for (const vault::ScanFinding& finding : found) {
    findings.push_back({file, static_cast<std::int64_t>(finding.line), finding.key, finding.masked, finding.kind});
  }
}

void scanConfig(std::vector<agent::FolderFinding>& findings, const std::filesystem::path& file) {
  try {
    if (const auto contents = clients::readConfigFile(file)) {
      add(findings, file.string(), vault::scanConfigText(contents->text));
    }
  } catch (const base::Error&) {
    // What cannot be read holds nothing that could be told; its connection's status says what is wrong with it.
  }
}

}  // namespace

std::vector<agent::ClientConnection> ApplicationActions::clients() {
  std::vector<agent::ClientConnection> all;
  for (const auto& status : connections_.statuses()) all.push_back(connectionOf(status));
  return all;
}

agent::ClientConnection ApplicationActions::client(const std::string& client, const std::string& project) {
  return connectionOf(connections_.status(connections_.target(client, project)));
}

agent::ClientConnection ApplicationActions::planClient(const std::string& client, const std::string& project) {
  const auto target = connections_.target(client, project);
  const auto plan = connections_.plan(target);
  agent::ClientConnection connection = connectionOf(connections_.status(target));
  connection.file = plan.file;
  connection.replaces = plan.replaces;
  connection.tokenInFile = plan.tokenInFile;
  return connection;
}

void ApplicationActions::connectClient(const agent::ClientConnection& plan, const ClientGrantToWrite& grant) {
  clients::Connections::Plan made;
  made.target = connections_.target(plan.client, plan.project);
  made.file = plan.file;
  made.tokenInFile = plan.tokenInFile;
  connections_.connect(made, {grant.id, grant.token.clone(), grant.allowReveal});
}

std::string ApplicationActions::disconnectClient(const std::string& client, const std::string& project) {
  switch (connections_.disconnect(connections_.target(client, project))) {
    case clients::Connections::Undone::restored:
      return "restored";
    case clients::Connections::Undone::leftChanged:
      return "leftChanged";
    case clients::Connections::Undone::gone:
      return "gone";
  }
  return "gone";
}

std::vector<agent::FolderFinding> ApplicationActions::scan(const std::string& folder) {
  std::vector<agent::FolderFinding> findings;
  for (const vault::ImportCandidate& candidate : vault::walkForEnvFiles(folder).files) {
    const vault::FileRead read = vault::readCandidate(candidate);
    if (read.text) add(findings, candidate.path.string(), vault::scanEnvText(read.text->view()));
  }
  for (const clients::AgentClient& client : clients::agentClients()) {
    if (!client.projectFile.empty()) scanConfig(findings, std::filesystem::path(folder) / client.projectFile);
    scanConfig(findings, client.userFile(connections_.folders()));
  }
  return findings;
}

namespace {

/// What restores put aside: locked vaults that nobody could open, and their values.
void removeVaultsSetAside(const std::filesystem::path& folder) {
  std::error_code failed;
  std::vector<std::filesystem::path> aside;
  for (const auto& entry : std::filesystem::directory_iterator(folder, failed)) {
    if (entry.path().filename().string().starts_with(unlock::VaultSwitch::kAsidePrefix)) aside.push_back(entry.path());
  }
  for (const std::filesystem::path& vault : aside) {
    if (!failed) std::filesystem::remove_all(vault, failed);
  }
  if (failed) throw vault::VaultError("A vault that was set aside could not be removed: " + failed.message() + ".");
}

}  // namespace

void ApplicationActions::removeVault() {
  // The metadata first: values that nothing names are useless, and metadata without values would be a damaged vault.
  const std::filesystem::path folder(state_.supportFolder);
  std::error_code failed;
  std::filesystem::remove_all(folder / base::kVaultName, failed);
  if (failed) throw vault::VaultError("The vault's files could not be removed: " + failed.message() + ".");
  std::filesystem::remove(folder / base::kGrantsName, failed);
  stores_.removeItems();
  removeVaultsSetAside(folder);
  // The answer is still sent: stopping waits for the requests that are served.
  ::kill(::getpid(), SIGTERM);
}

}  // namespace sorvane::app
