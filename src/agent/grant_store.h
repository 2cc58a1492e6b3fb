#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/grant_book.h"
#include "agent/grant_file.h"
#include "base/files.h"
#include "base/mutex.h"

namespace sorvane::vault {
class Vault;
}

namespace sorvane::agent {

/// GrantStore keeps the grants in "agent_clients.json" and trusts the file only while its SHA-256 is one of those in
/// the sealed setting "agent-clients". A save first adds the new digest, then replaces the file, then drops the old
/// digest, so that a stop between any two steps leaves a file that is trusted. A file in the earlier form is rewritten
/// at once; its grants count after the owner confirmed their labels. Any thread; saves run one at a time.
class GrantStore final : public GrantBook {
 public:
  GrantStore(std::filesystem::path file, base::Files& files, vault::Vault& vault, LegacySwitches switches = {});

  std::shared_ptr<const std::vector<ClientGrant>> current() override;
  void environmentRemoved(std::string_view name) override;

  /// What the owner sees: the grants of the file, whether they count, and the sentence that says why not.
  struct View {
    std::vector<ClientGrant> grants;
    bool trusted = true;
    std::optional<std::string> sentence;
  };
  View view();

  /// Makes a grant and returns its token, which is kept nowhere else. A file that is not trusted is begun anew.
  struct NewGrant {
    std::string label;
    std::optional<std::string> environment;
    bool allowReveal = false;
  };
  struct Added {
    std::string id;
    base::SecretText token;
  };
  /// With `replacing` the label may be that of the grant of that id, which the caller removes afterwards.
  Added add(const NewGrant& grant, std::string_view replacing = {});
  /// Changes or removes the grant of that label. Throws GrantsError when there is none.
  void edit(std::string_view label, const std::function<void(ClientGrant&)>& change);
  void remove(std::string_view label);
  /// Nothing happens when there is none of that id.
  void removeById(std::string_view id);
  /// Notes what the client's own configuration says; nothing happens when there is none of that id.
  void noteAutoApprove(std::string_view id, bool autoApprove);
  /// The owner confirmed the labels of grants that were taken over.
  void confirm();
  /// Called before the environment is renamed.
  void environmentRenamed(std::string_view from, std::string_view to);

 private:
  struct State {
    std::vector<ClientGrant> grants;
    bool trusted = true;
    bool confirmed = true;
    std::string digest;  ///< of the file; empty when there is none
  };
  State load() REQUIRES(saving_);
  State takeOver(std::string_view text) REQUIRES(saving_);
  State settled(State state) REQUIRES(saving_);
  void save(State& state) REQUIRES(saving_);
  void moveScope(std::string_view from, std::string_view to);
  void change(const std::function<void(std::vector<ClientGrant>&)>& edit);
  void say(const State& state);

  // Constant after construction.
  const std::filesystem::path file_;
  base::Files& files_;
  vault::Vault& vault_;
  const LegacySwitches switches_;
  /// Held over the file and the setting while they are read together or written.
  base::Mutex saving_;
  /// The vault generation whose environments the scopes were compared with.
  std::string settledGeneration_ GUARDED_BY(saving_);
  // Guarded. A leaf.
  base::Mutex mutex_;
  std::optional<base::FileIdentity> cachedIdentity_ GUARDED_BY(mutex_);
  std::string cachedGeneration_ GUARDED_BY(mutex_);
  std::shared_ptr<const std::vector<ClientGrant>> cached_ GUARDED_BY(mutex_);
  bool said_ GUARDED_BY(mutex_) = false;
};

}  // namespace sorvane::agent
