#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/files.h"
#include "clients/agent_clients.h"
#include "clients/install_ledger.h"

namespace sorvane::clients {

/// ConnectionError refuses a change of a client's connection; its sentence is shown as it stands.
class ConnectionError : public base::Error {
 public:
  using Error::Error;
};

/// Connections writes the entry "sorvane" into the configuration files of agent clients, keeps the ledger of these
/// changes, and takes them back. Any thread; one change at a time.
class Connections {
 public:
  struct Setting {
    Folders folders;
    std::filesystem::path supportFolder;
    bool isUsualSupportFolder = true;
    std::string program;  ///< the path of `sorvane`
  };
  /// What a connection is for: a client, and a project's folder when it is for that project alone.
  struct Target {
    const AgentClient* client = nullptr;
    std::string project;  ///< without links; empty for the user's own file
  };
  enum class State {
    absent,        ///< not connected
    connected,     ///< the entry stands as it was written
    entryChanged,  ///< somebody changed it
    entryGone,
    unreadable  ///< the file is damaged; `problem` says how
  };
  struct Status {
    Target target;
    std::string file;
    bool found = false;  ///< the client has been used on this computer
    State state = State::absent;
    std::string grantId;
    bool runsUnasked = false;
    std::optional<std::string> problem;
  };
  /// What a connection would write, for the question.
  struct Plan {
    Target target;
    std::string file;
    bool replaces = false;     ///< an entry "sorvane" of somebody else stands there
    bool tokenInFile = false;  ///< otherwise the entry names the connection and the token lies in the support folder
    bool runsUnasked = false;
  };
  struct Grant {
    std::string id;
    base::SecretText token;
    bool allowReveal = false;
  };
  enum class Undone { restored, leftChanged, gone };

  Connections(Setting setting, base::Files& files, vault::SealedSettings& settings);

  /// Throws ConnectionError for an unknown client, a project folder that is none, and a client without project files.
  Target target(const std::string& client, const std::string& project);
  std::vector<Status> statuses();
  Status status(const Target& target);
  /// Throws ConnectionError or what the file's reader throws when it cannot be done.
  Plan plan(const Target& target);
  /// Writes the entry and the ledger. When it throws, the file is as it was.
  void connect(const Plan& plan, const Grant& grant);
  /// Takes the entry back unless somebody changed it; the ledger's row and the token's file go in any case.
  Undone disconnect(const Target& target);
  const Folders& folders() const { return setting_.folders; }

 private:
  void removeTokenFile(const std::string& grantId);
  std::filesystem::path fileOf(const Target& target) const;
  bool isFound(const AgentClient& client) const;
  std::filesystem::path tokenFile(const std::string& grantId) const;
  std::optional<LedgerRow> rowOf(const Target& target);
  OrderedJson entryFor(const Target& target, const Grant& grant, bool tokenInFile) const;
  void readState(Status& status, const LedgerRow* row) const;

  // Constant after construction.
  const Setting setting_;
  base::Files& files_;
  InstallLedger ledger_;
};

std::string_view word(Connections::State state);

}  // namespace sorvane::clients
