#include "app/open_vault.h"

#include <unistd.h>

#include <cstdlib>

#include "base/diagnostics.h"
#include "base/environment.h"
#include "base/support_folder.h"
#include "base/system.h"
#include "base/temporary_files.h"

namespace sorvane::app {
namespace {

/// How long requests in flight may take to end before the vault is replaced.
constexpr std::chrono::seconds kPatience{10};

std::string homeFolder() {
  const char* const home = std::getenv("HOME");
  return home == nullptr ? std::string() : std::string(home);
}

clients::Connections::Setting connectionSetting(const std::filesystem::path& supportFolder) {
  clients::Connections::Setting connections;
  connections.folders.home = homeFolder();
  connections.folders.config = base::userConfigFolder();
  connections.folders.dotConfig = base::dotConfigFolder();
  const char* const codex = std::getenv("CODEX_HOME");
  connections.folders.codex =
      codex != nullptr && *codex == '/' ? std::filesystem::path(codex) : connections.folders.home / ".codex";
  connections.supportFolder = supportFolder;
  connections.isUsualSupportFolder = supportFolder == base::defaultSupportFolder();
  const std::filesystem::path beside = base::programPath().parent_path() / "sorvane";
  connections.program = ::access(beside.c_str(), X_OK) == 0 ? beside.string() : "sorvane";
  return connections;
}

}  // namespace

OpenVault::OpenVault(Ports ports)
    : stores_(ports.stores),
      sessions_(ports.clock),
      vault_(ports.supportFolder / base::kVaultName, {ports.files, stores_.inUse(), ports.clock, sessions_}),
      proxy_({ports.supportFolder,
              ports.files,
              stores_.inUse(),
              vault_,
              ports.clock,
              ports.notifier,
              &ports.approver,
              {}}),
      grants_(ports.supportFolder / base::kGrantsName, ports.files, vault_),
      policy_(vault_),
      connections_(connectionSetting(ports.supportFolder), ports.files, vault_.settings()),
      actions_(std::move(ports.state), stores_, connections_, proxy_),
      backups_({{vault_, ports.files, ports.clock, [this](const std::function<void()>& work) { alone(work); },
                 ports.supportFolder},
                std::move(ports.restoring),
                [this, told = std::move(ports.restored)] {
                  server_.serveAgents();
                  told();
                }}),
      jobs_(ports.clock),
      ownerActions_({vault_, grants_, policy_, jobs_, *clipboard_, copied_, sessions_, actions_, ports.clock, &proxy_,
                     &backups_, &ports.phones, ports.systemCheckUnavailable}),
      runner_(ports.host),
      keyFiles_(ports.supportFolder / base::kKeyFilesName, ports.files, ports.clock, runner_,
                agent::minimumEnvironment(environ)),
      server_({.supportFolder = ports.supportFolder, .agentsHeldBack = ports.agentsHeldBack},
              {ports.files,
               {vault_,
                grants_,
                ownerActions_,
                runner_,
                ports.notifier,
                sessions_,
                keyFiles_,
                *clipboard_,
                copied_,
                ports.clock,
                agent::minimumEnvironment(environ),
                homeFolder(),
                ports.supportFolder,
                {},
                &proxy_.broker()},
               {&ports.approver, ports.ownerPrompt, [this] { return policy_.current().approval; },
                [this] { return policy_.current().approver; }, ports.trustedSession, ports.clock}}) {
  if (const auto failure = vault_.storageFailure()) {
    base::diagnose("app", *failure);
  } else {
    stores_.opened();
  }
}

void OpenVault::alone(const std::function<void()>& work) {
  const bool wasClosed = vault_.storageFailure().has_value();
  const auto replace = [&] {
    work();
    if (!wasClosed || vault_.storageFailure()) return;
    // What a start leaves out for a vault that does not open.
    stores_.opened();
    startProxy();
    finishMove();
  };
  switch (server_.alone(kPatience, replace)) {
    case agent::AgentServer::Alone::done:
      return;
    case agent::AgentServer::Alone::stillBusy:
      throw unlock::BackupError(unlock::sentence::kStillRunning);
    case agent::AgentServer::Alone::notRunning:
      throw unlock::BackupError(unlock::sentence::kNotServed);
  }
}

void OpenVault::startProxy() {
  proxy_.start([this] { server_.republish(); }, [this] { return policy_.current().approver; });
}

bool OpenVault::start() {
  if (!server_.start()) return false;
  startProxy();
  finishMove();
  return true;
}

void OpenVault::finishMove() {
  if (stores_.record().leaving && !vault_.storageFailure()) {
    jobs_.start("storeMove", [this](const agent::Jobs::Step&) {
      try {
        stores_.finishMove();
      } catch (const base::Error& error) {
        base::diagnose("app", error.sentence());
        throw;
      }
      return std::optional<std::string>();
    });
  }
}

}  // namespace sorvane::app
