#include "clients/connections.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "clients/config_file.h"

namespace sorvane::clients {
namespace {

constexpr std::string_view kTokenVariable = "SORVANE_MCP_TOKEN";
constexpr std::string_view kRevealVariable = "SORVANE_MCP_ALLOW_REVEAL";
constexpr std::string_view kTokenFolder = "clients";
constexpr mode_t kOthers = 0077;

bool isFolder(const std::filesystem::path& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool isThere(const std::filesystem::path& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

/// The folders that are missing up to the file, made by us for a project.
void makeFoldersFor(const std::filesystem::path& file) {
  const std::filesystem::path folder = file.parent_path();
  if (isFolder(folder)) return;
  if (::mkdir(folder.c_str(), 0755) != 0) {
    throw ConnectionError("The folder " + folder.string() +
                          " could not be made. Nothing was changed. Make it and try again.");
  }
}

/// Runs what reads or edits a document; a refusal names the file.
template <typename Call>
auto naming(const std::filesystem::path& file, const Call& call) {
  try {
    return call();
  } catch (const ConfigEditError& error) {
    throw ConnectionError(file.string() + ": " + error.sentence());
  }
}

}  // namespace

std::string_view word(Connections::State state) {
  switch (state) {
    case Connections::State::absent:
      return "absent";
    case Connections::State::connected:
      return "connected";
    case Connections::State::entryChanged:
      return "entryChanged";
    case Connections::State::entryGone:
      return "entryGone";
    case Connections::State::unreadable:
      return "unreadable";
  }
  return "absent";
}

Connections::Connections(Setting setting, base::Files& files, vault::SealedSettings& settings)
    : setting_(std::move(setting)), files_(files), ledger_(settings) {}

Connections::Target Connections::target(const std::string& client, const std::string& project) {
  const AgentClient* const found = clientNamed(client);
  if (found == nullptr) {
    std::string words;
    for (const AgentClient& known : agentClients()) words.append(words.empty() ? "" : ", ").append(known.word);
    throw ConnectionError("There is no agent client '" + client + "'. Nothing was changed. Choose one of " + words +
                          ".");
  }
  if (project.empty()) return {found, {}};
  if (found->projectFile.empty()) {
    throw ConnectionError(
        std::string(found->name) +
        " has no configuration file for a project. Nothing was changed. Connect it without a project.");
  }
  // A project that is gone can still be disconnected.
  for (const LedgerRow& row : ledger_.rows()) {
    if (row.client == client && row.project == project) return {found, project};
  }
  const std::unique_ptr<char, decltype(&::free)> folder(::realpath(project.c_str(), nullptr), &::free);
  if (!folder || project.front() != '/' || !isFolder(folder.get())) {
    throw ConnectionError("The project folder is missing. Nothing was changed. Choose an existing absolute directory.");
  }
  return {found, folder.get()};
}

std::filesystem::path Connections::fileOf(const Target& target) const {
  if (!target.project.empty()) return std::filesystem::path(target.project) / target.client->projectFile;
  return target.client->userFile(setting_.folders);
}

bool Connections::isFound(const AgentClient& client) const {
  const std::filesystem::path file = client.userFile(setting_.folders);
  if (isThere(file)) return true;
  if (client.word == "claude-code") return isFolder(setting_.folders.home / ".claude");
  return isFolder(file.parent_path());
}

std::filesystem::path Connections::tokenFile(const std::string& grantId) const {
  return setting_.supportFolder / kTokenFolder / (grantId + ".token");
}

std::optional<LedgerRow> Connections::rowOf(const Target& target) {
  for (LedgerRow& row : ledger_.rows()) {
    if (row.client == target.client->word && row.project == target.project) return std::move(row);
  }
  return std::nullopt;
}

void Connections::readState(Status& status, const LedgerRow* row) const {
  const AgentClient& client = *status.target.client;
  try {
    const auto contents = readConfigFile(status.file);
    const std::string text = contents ? contents->text : std::string();
    status.runsUnasked = client.runsUnasked(setting_.folders, text);
    const auto entry = findEntry(client.format, text, client.path());
    if (row == nullptr) return;
    if (!entry)
      status.state = State::entryGone;
    else
      status.state =
          restoreEntry(client.format, text, client.path(), row->undo) ? State::connected : State::entryChanged;
  } catch (const base::Error& error) {
    status.state = State::unreadable;
    status.problem = status.file + ": " + error.sentence();
  }
}

Connections::Status Connections::status(const Target& target) {
  Status status;
  status.target = target;
  status.file = fileOf(target).string();
  status.found = isFound(*target.client);
  const auto row = rowOf(target);
  if (row) status.grantId = row->grantId;
  readState(status, row ? &*row : nullptr);
  return status;
}

std::vector<Connections::Status> Connections::statuses() {
  std::vector<Status> all;
  for (const AgentClient& client : agentClients()) all.push_back(status({&client, {}}));
  for (const LedgerRow& row : ledger_.rows()) {
    const AgentClient* const client = clientNamed(row.client);
    if (client != nullptr && !row.project.empty()) all.push_back(status({client, row.project}));
  }
  return all;
}

Connections::Plan Connections::plan(const Target& target) {
  const AgentClient& client = *target.client;
  if (target.project.empty() && !isFound(client)) {
    throw ConnectionError(std::string(client.name) + " was not found on this computer: there is no " +
                          fileOf(target).string() + ". Nothing was changed. Start it once, then try again.");
  }
  Plan plan;
  plan.target = target;
  const auto contents = readConfigFile(fileOf(target));
  plan.file = (contents ? contents->path : fileOf(target)).string();
  // A project's file is often committed, as is one that a link leads to, and what others can read is no place for a
  // token.
  struct stat status {};
  const bool isLink = ::lstat(fileOf(target).c_str(), &status) == 0 && S_ISLNK(status.st_mode);
  plan.tokenInFile = target.project.empty() && !isLink && (!contents || (contents->mode & kOthers) == 0);
  const std::string text = contents ? contents->text : std::string();
  const auto row = rowOf(target);
  naming(plan.file, [&] {
    const bool ours = row && restoreEntry(client.format, text, client.path(), row->undo).has_value();
    plan.replaces = !ours && findEntry(client.format, text, client.path()).has_value();
  });
  plan.runsUnasked = client.runsUnasked(setting_.folders, text);
  return plan;
}

OrderedJson Connections::entryFor(const Target& target, const Grant& grant, bool tokenInFile) const {
  EntryCommand command;
  command.program = setting_.program;
  if (!setting_.isUsualSupportFolder) command.arguments = {"--support-dir", setting_.supportFolder.string()};
  command.arguments.emplace_back("mcp");
  if (tokenInFile) {
    command.environment.emplace_back(kTokenVariable, grant.token.view());
  } else {
    command.arguments.emplace_back("--grant");
    command.arguments.push_back(grant.id);
  }
  if (grant.allowReveal) command.environment.emplace_back(kRevealVariable, "1");
  return target.client->entry(command);
}

void Connections::connect(const Plan& plan, const Grant& grant) {
  const Target& target = plan.target;
  const AgentClient& client = *target.client;
  const std::filesystem::path file = fileOf(target);
  const auto earlier = rowOf(target);
  LedgerRow row{std::string(client.word), target.project, file.string(), grant.id, {}, false};
  // As it was put to the owner, whatever became of the file's mode since.
  const bool tokenInFile = plan.tokenInFile;
  if (!target.project.empty()) makeFoldersFor(file);
  if (!tokenInFile) {
    files_.makeFolder(setting_.supportFolder / kTokenFolder);
    files_.writeAtomically(tokenFile(grant.id), grant.token.bytes());
  }
  try {
    row.createdFile = earlier ? earlier->createdFile : !readConfigFile(file).has_value();
    updateConfigFile(file, [&](const std::string& text) -> std::optional<std::string> {
      // Our own earlier entry is taken back first, so that what stood there before us is what is remembered.
      const auto clean = earlier ? restoreEntry(client.format, text, client.path(), earlier->undo) : std::nullopt;
      Edited edited =
          setEntry(client.format, clean ? *clean : text, client.path(), entryFor(target, grant, tokenInFile));
      row.undo = std::move(edited.undo);
      // Before the file changes: a change without its row could not be taken back.
      ledger_.put(row);
      return std::move(edited.document);
    });
  } catch (...) {
    removeTokenFile(grant.id);
    if (earlier)
      ledger_.put(*earlier);
    else
      ledger_.remove(row.client, row.project);
    throw;
  }
  if (earlier && earlier->grantId != grant.id) removeTokenFile(earlier->grantId);
}

Connections::Undone Connections::disconnect(const Target& target) {
  const AgentClient& client = *target.client;
  const auto row = rowOf(target);
  if (!row) {
    throw ConnectionError(std::string(client.name) + " is not connected, so there was nothing to take back.");
  }
  Undone undone = Undone::restored;
  updateConfigFile(row->file, [&](const std::string& text) -> std::optional<std::string> {
    if (!findEntry(client.format, text, client.path())) {
      undone = Undone::gone;
      return std::nullopt;
    }
    auto restored = restoreEntry(client.format, text, client.path(), row->undo);
    undone = restored ? Undone::restored : Undone::leftChanged;
    return restored;
  });
  // A file that was made for the entry alone goes with it.
  const auto left = readConfigFile(row->file);
  if (row->createdFile && left && left->text.empty()) files_.remove(left->path);
  removeTokenFile(row->grantId);
  ledger_.remove(row->client, row->project);
  return undone;
}

void Connections::removeTokenFile(const std::string& grantId) {
  files_.remove(tokenFile(grantId));
}

}  // namespace sorvane::clients
