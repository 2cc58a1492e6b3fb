#include "app/application.h"

#include <unistd.h>

#include <cstdlib>

#include "base/diagnostics.h"
#include "base/support_folder.h"
#include "base/system.h"
#include "base/temporary_files.h"

namespace sorvane::app {
namespace {

constexpr std::string_view kMemoryMayBeSwapped =
    "The system does not let sorvaned lock its memory, so keys could reach the swap space. Raise the limit of locked "
    "memory (ulimit -l) and restart sorvaned.";
constexpr std::string_view kNobodyAnswers =
    "sorvaned runs without a terminal, so every request that needs the owner is denied. Run it in a terminal to answer "
    "there.";

agent::ApplicationState stateOf(const Application::Setting& setting, bool hasApprover) {
  agent::ApplicationState state;
  state.version = SORVANE_VERSION;
  state.supportFolder = setting.supportFolder.string();
  state.approver = hasApprover ? "the terminal that sorvaned runs on" : "nobody";
  state.capabilities.assign(agent::kCapabilities.begin(), agent::kCapabilities.end());
  if (!hasApprover) state.notices.emplace_back(kNobodyAnswers);
  if (!setting.memoryIsLocked) state.notices.emplace_back(kMemoryMayBeSwapped);
  return state;
}

/// The store in use, which nothing locks yet.
vault::MovableStore& opened(Stores& stores) {
  stores.open();
  return stores.inUse();
}

std::string homeFolder() {
  const char* const home = std::getenv("HOME");
  return home == nullptr ? std::string() : std::string(home);
}

clients::Connections::Setting connectionSetting(const Application::Setting& setting) {
  clients::Connections::Setting connections;
  connections.folders.home = homeFolder();
  connections.folders.config = base::userConfigFolder();
  const char* const codex = std::getenv("CODEX_HOME");
  connections.folders.codex =
      codex != nullptr && *codex == '/' ? std::filesystem::path(codex) : connections.folders.home / ".codex";
  connections.supportFolder = setting.supportFolder;
  connections.isUsualSupportFolder = setting.supportFolder == base::defaultSupportFolder();
  const std::filesystem::path beside = base::programPath().parent_path() / "sorvane";
  connections.program = ::access(beside.c_str(), X_OK) == 0 ? beside.string() : "sorvane";
  return connections;
}

}  // namespace

Application::Application(const Setting& setting, agent::ProcessHost& host, agent::ApprovalProvider* approver)
    : lock_(setting.supportFolder / base::kLockName),
      stores_(setting.supportFolder, files_, setting.store),
      vault_(setting.supportFolder / base::kVaultName, {files_, opened(stores_), clock_, sessions_}),
      proxy_({setting.supportFolder, files_, stores_.inUse(), vault_, clock_, notifier_, approver, {}}),
      grants_(setting.supportFolder / base::kGrantsName, files_, vault_),
      policy_(vault_),
      connections_(connectionSetting(setting), files_, vault_.settings()),
      actions_(stateOf(setting, approver != nullptr), stores_, connections_, proxy_),
      jobs_(clock_),
      ownerActions_({vault_, grants_, policy_, jobs_, clipboard_, copied_, sessions_, actions_, clock_, &proxy_}),
      runner_(host),
      keyFiles_(setting.supportFolder / base::kKeyFilesName, files_, clock_, runner_,
                agent::minimumEnvironment(environ)),
      server_({setting.supportFolder}, {files_,
                                        {vault_,
                                         grants_,
                                         ownerActions_,
                                         runner_,
                                         notifier_,
                                         sessions_,
                                         keyFiles_,
                                         clipboard_,
                                         copied_,
                                         clock_,
                                         agent::minimumEnvironment(environ),
                                         homeFolder(),
                                         setting.supportFolder,
                                         {},
                                         &proxy_.broker()},
                                        {approver,
                                         ownerPrompt_,
                                         [this] { return policy_.current().approval; },
                                         [this] { return policy_.current().approver; },
                                         {},
                                         clock_}}) {
  base::removeTemporaryFiles(files_, setting.supportFolder);
  if (!setting.memoryIsLocked) base::diagnose("app", kMemoryMayBeSwapped);
  if (approver == nullptr) base::diagnose("app", kNobodyAnswers);
  if (const auto failure = vault_.storageFailure()) {
    base::diagnose("app", *failure);
  } else {
    stores_.opened();
  }
}

bool Application::start() {
  if (!server_.start()) return false;
  proxy_.start([this] { server_.republish(); },
               [this] {
                 const agent::Approver whose = policy_.current().approver;
                 return whose == agent::Approver::any || whose == agent::Approver::terminal;
               });
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
  return true;
}

}  // namespace sorvane::app
