#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/clipboard.h"
#include "agent/command_runner.h"
#include "agent/copied_value.h"
#include "agent/grant_book.h"
#include "agent/key_env_files.h"
#include "agent/notifier.h"
#include "agent/operations.h"
#include "agent/owner_actions.h"
#include "agent/protocol.h"
#include "agent/stand_ins.h"
#include "agent/task_sessions.h"
#include "vault/vault.h"

namespace sorvane::agent {

/// Longest name, in characters, that an agent may give to something new: the owner reads it whole before allowing it.
inline constexpr std::size_t kMaxNewNameCharacters = 200;
/// Longest command, in characters, that is put to the owner.
inline constexpr std::size_t kMaxCommandCharacters = 4000;
/// Bounds of `payload["timeoutSeconds"]` of a command.
inline constexpr std::chrono::seconds kMinRunSeconds{1}, kMaxRunSeconds{3600}, kDefaultRunSeconds{120};

inline constexpr std::string_view kEnvironmentChanged =
    "The environment changed while the owner was asked. Nothing was shared. Try again.";

/// The part of an application's own environment that a command gets beside its variables: PATH, HOME, USER, LOGNAME,
/// SHELL, LANG, LC_*, TERM, TMPDIR and TZ, as "NAME=value". `environment` ends with a null pointer.
std::vector<std::string> minimumEnvironment(const char* const* environment);

/// Handlers carries out the operations for callers that the table admits. Everything that can be refused is refused
/// before the owner is asked, and what was checked then is what is used after the answer. Any thread; holds no state of
/// its own.
class Handlers {
 public:
  struct Ports {
    vault::Vault& vault;
    GrantBook& grants;
    OwnerActions& actions;
    CommandRunner& runner;
    Notifier& notifier;
    TaskSessions& sessions;
    KeyEnvFiles& keyFiles;
    Clipboard& clipboard;
    CopiedValue& copied;
    const base::Clock& clock;
    /// Of minimumEnvironment.
    std::vector<std::string> minimum;
    /// Where a command runs when nothing else is said; may be empty.
    std::string home;
    /// Never imported from.
    std::filesystem::path supportFolder;
    /// Told after an operation changed the vault; may be absent.
    std::function<void()> onVaultMutated;
    /// Absent where no calls can be routed.
    proxy::LocalProxyBroker* localProxy = nullptr;
  };
  explicit Handlers(Ports ports) : ports_(std::move(ports)) {}

  AgentResponse listEnvironments(Call& call);
  AgentResponse listSecrets(Call& call);
  AgentResponse renderEnv(Call& call);
  AgentResponse runEnv(Call& call);
  AgentResponse getSecret(Call& call);
  AgentResponse captureSecret(Call& call);
  AgentResponse createEnvironment(Call& call);
  AgentResponse deleteEnvironment(Call& call);
  AgentResponse addToEnvironment(Call& call);
  AgentResponse manageVault(Call& call);
  AgentResponse importProject(Call& call);
  AgentResponse peekClipboard(Call& call);
  AgentResponse captureClipboard(Call& call);
  AgentResponse beginTaskSession(Call& call);
  AgentResponse listTaskSessions(Call& call);
  AgentResponse endTaskSession(Call& call);
  AgentResponse taskSessionEnv(Call& call);
  AgentResponse keyEnvFile(Call& call);
  AgentResponse keysNotServed(Call& call);
  AgentResponse proxyUsage(Call& call);
  AgentResponse proxyRunEnded(Call& call);

 private:
  AgentResponse runUnderSession(Call& call);
  /// What of a task session is decided before the owner is asked.
  struct SessionPlan;
  std::optional<AgentResponse> planSession(Call& call, SessionPlan& plan, std::vector<std::string>& details);
  AgentResponse beginPlanned(Call& call, SessionPlan plan, vault::ProxySplitRender split);
  /// Ends a grant that a change of access, or the client's going, has overtaken.
  bool isStillGood(Call& call, const std::string& epoch, const proxy::IssuedProxyGrant& grant);
  AgentResponse renderForCommand(Call& call, const vault::Project& environment,
                                 const std::optional<std::string>& target);
  AgentResponse renderRedacted(Call& call, const vault::Project& environment, const std::optional<std::string>& target);
  /// The refusal of an environment that is not what it was when the owner was asked.
  std::optional<AgentResponse> changedMeanwhile(const vault::Project& environment);
  /// Whether the environment holds protected keys, which the question then tells; the plan's refusal comes first.
  bool lookForKeys(Call& call, const vault::Project& environment, const std::optional<std::string>& target,
                   StandInPlan& plan, OperationQuestion& question);
  /// The controller sees every session, by the beginning of its id.
  std::vector<TaskSessionInfo> sessionsOf(const Caller& caller);
  /// A grant, and the port that it is good at.
  struct StandIns {
    proxy::IssuedProxyGrant grant;
    std::uint16_t port = 0;
  };
  /// nullopt when the proxy stopped meanwhile. With `watch` for a command run.
  std::optional<StandIns> issueStandIns(proxy::NewProxyGrant grant, const std::optional<proxy::ProxyRunWatch>& watch);
  void changed(const std::string& title, const std::string& body);
  /// What a capture saves, as the question and the access log say it.
  struct Captured {
    std::string inWords;
    std::string tool;
  };
  AgentResponse capture(Call& call, const std::string& name, base::SecretText value, const Captured& what);
  AgentResponse bindNew(Call& call, const vault::Project* environment, const std::string& name,
                        const vault::Secret& secret);

  const Ports ports_;
};

// Looking up what a request names (handlers_lookup.cpp).

/// The environment a request is about, or why the caller gets none: a scoped caller is told the same of every other
/// name, whether it exists or not.
struct EnvironmentLookup {
  const vault::Project* environment = nullptr;
  std::optional<AgentResponse> refusal;
};
EnvironmentLookup environmentOf(const vault::Records& records, const Caller& caller, std::string_view name);

/// `environment`, else `arg`, else the empty text.
std::string environmentNameOf(const AgentRequest& request);

/// The secret of this name, when the caller may see it: any for an unscoped caller, those of its environment for a
/// scoped one.
const vault::Secret* visibleSecret(const vault::Records& records, const Caller& caller, std::string_view name);

/// The refusal of a change to an environment outside the caller's scope; `verb` is "add to", "delete", "create" or
/// "capture into".
std::optional<AgentResponse> refusedChange(const Caller& caller, std::string_view verb, std::string_view name);

std::optional<std::string> declaredTarget(const AgentRequest& request);

/// The warning for a variable that a command does not get.
std::string runControlWarning(std::string_view name);

/// Checks every version that a render would deliver, as far as it can be done without its value. Throws
/// DeploymentPolicyError.
void checkTargetsBeforeAsking(const vault::Records& records, const vault::Project& environment,
                              const std::optional<std::string>& target);

/// "environment_not_allowed" for a name that the caller may not use.
AgentResponse otherEnvironment(std::string_view name);

/// "1 hour", "90 seconds".
std::string durationInWords(std::int64_t seconds);

/// The folder without links, which is what the owner is shown and what is used; nullopt when it is no absolute folder.
std::optional<std::string> existingFolder(const std::string& path);

/// "environment_not_found" with its sentence.
AgentResponse noEnvironment(std::string_view name);

}  // namespace sorvane::agent
