#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/macos/owner_check_rules.h"
#include "unlock/owner_presence.h"

namespace sorvane::platform {

/// LocalOwnerCheck asks the owner by what this Mac has: Touch ID, a watch, or the login password (LAContext). Each
/// question has a context of its own, so that an earlier answer opens nothing later. The system's prompt is shown by
/// the system and says which application asks. Any thread.
class LocalOwnerCheck final : public unlock::OwnerPresence {
 public:
  explicit LocalOwnerCheck(OwnerCheckPurpose purpose = OwnerCheckPurpose::lock);
  /// Withdraws what is asked. Replies of it are over when it returns.
  ~LocalOwnerCheck() override;
  LocalOwnerCheck(const LocalOwnerCheck&) = delete;
  LocalOwnerCheck& operator=(const LocalOwnerCheck&) = delete;

  /// A sentence where no login password is set; nothing else holds for whoever asks.
  std::optional<std::string> unavailable() override;
  /// Ends an earlier question.
  void ask(Check check, const std::string& reason, Reply reply) override;
  void withdraw() override;

 private:
  struct Asked;

  const OwnerCheckPurpose purpose_;
  const std::unique_ptr<Asked> asked_;
};

}  // namespace sorvane::platform
