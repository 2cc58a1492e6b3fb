#pragma once

#include <functional>
#include <optional>
#include <string>
#include <variant>

namespace sorvane::unlock {

/// What the system may recognise its owner by.
enum class Biometry { none, touchID, faceID, opticID };

struct UnlockHardware {
  Biometry biometry = Biometry::none;
  bool watch = false;  ///< a watch can confirm
  bool operator==(const UnlockHardware&) const = default;
};

/// OwnerPresence asks the system whether its owner is there. One question at a time. Called on one thread.
class OwnerPresence {
 public:
  enum class Check {
    any,           ///< the quickest way there is, without a button for the password
    passwordOnly,  ///< the login password
    presence,      ///< whatever the system takes for a sensitive action
  };

  struct Granted {};
  struct Cancelled {};
  /// The check could not be made or was not passed. The named codes are those with a meaning of their own.
  struct Failed {
    static constexpr int kNotAccepted = -1;
    static constexpr int kSystemCancelled = -4;
    static constexpr int kNoLoginPassword = -5;
    static constexpr int kNotInteractive = -1004;  ///< the system could not show a prompt
    int code = 0;
    /// What stood in the way and what to do about it, as a whole sentence; empty where the code says it all.
    std::string explanation{};
  };
  using Answer = std::variant<Granted, Cancelled, Failed>;
  /// Called once for each question, from any thread, within the call to `ask` too.
  using Reply = std::function<void(Answer)>;

  virtual ~OwnerPresence() = default;
  /// Why nobody can be asked at all on this machine, whoever asks, as a sentence that says what to do about it;
  /// nullopt: somebody can. What stands in the way of one question only is its answer. Does not wait for a service that
  /// hangs.
  virtual std::optional<std::string> unavailable() = 0;
  /// The same for the question whether to unlock the vault, which others than the system may answer.
  virtual std::optional<std::string> unlockUnavailable() { return unavailable(); }
  /// Asks with `reason` shown. Does not block.
  virtual void ask(Check check, const std::string& reason, Reply reply) = 0;
  /// Takes the question back; its reply, if it still comes, is Cancelled. Nothing when there is none.
  virtual void withdraw() = 0;
};

}  // namespace sorvane::unlock
