#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "agent/jobs.h"
#include "base/secret_text.h"

namespace sorvane::agent {

/// ApplicationState is what only the application knows about itself.
struct ApplicationState {
  std::string version;
  std::string supportFolder;
  std::string approver;  ///< in words: who answers questions
  std::vector<std::string> capabilities;
  std::vector<std::string> notices;  ///< sentences that the owner should read
};

/// StoreState tells which credential store is in use.
struct StoreState {
  std::string kind;
  std::string note;
  bool moving = false;
};

/// ClientConnection is one agent client, or one project of it, as its configuration file stands.
struct ClientConnection {
  std::string client;   ///< the word that is typed
  std::string name;     ///< as it is shown
  std::string project;  ///< empty for the user's own file
  std::string file;
  bool found = false;
  std::string state;  ///< absent, connected, entryChanged, entryGone, unreadable
  std::string grantId;
  bool runsUnasked = false;  ///< the client does not ask before it runs the tools
  bool replaces = false;     ///< an entry of somebody else stands where ours would
  bool tokenInFile = false;
  std::optional<std::string> problem;
};

/// FolderFinding is one value in a file that looks like a credential; the value itself is not in it.
struct FolderFinding {
  std::string file;
  std::int64_t line = 0;
  std::string key, masked, kind;
};

/// VaultActions is what stands above this room: what of the owner's actions only the application can carry
/// out. Failures are base::Error. Any thread.
class VaultActions {
 public:
  virtual ~VaultActions() = default;
  virtual ApplicationState state() = 0;
  virtual StoreState store() = 0;
  /// How many items the store holds; 0 while they are moved.
  virtual std::int64_t storeItems() = 0;
  /// Throws when the store cannot be moved there now.
  virtual void checkStoreMove(const std::string& to) = 0;
  /// Moves every item; returns the job's document.
  virtual std::optional<std::string> moveStore(const std::string& to, const Jobs::Step& step) = 0;

  // Agent clients. An empty `project` stands for the user's own file.
  virtual std::vector<ClientConnection> clients() = 0;
  virtual ClientConnection client(const std::string& client, const std::string& project) = 0;
  /// Throws when the entry could not be written now; `tokenInFile` and `replaces` are filled.
  virtual ClientConnection planClient(const std::string& client, const std::string& project) = 0;
  struct ClientGrantToWrite {
    std::string id;
    base::SecretText token;
    bool allowReveal = false;
  };
  virtual void connectClient(const ClientConnection& plan, const ClientGrantToWrite& grant) = 0;
  /// Takes the entry back; returns "restored", "leftChanged" or "gone".
  virtual std::string disconnectClient(const std::string& client, const std::string& project) = 0;

  /// Credential-shaped values in the folder's .env files and in the files of agent clients.
  virtual std::vector<FolderFinding> scan(const std::string& folder) = 0;
  /// Removes every value and the vault's files, then ends the application once the answer is sent.
  virtual void removeVault() = 0;
};

}  // namespace sorvane::agent
