#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>

#include "agent/approvals.h"
#include "agent/connection.h"
#include "agent/grant_book.h"
#include "agent/operations.h"
#include "base/system.h"
#include "crypto/key.h"

namespace sorvane::agent {

/// What a request needs of its server.
struct RequestSetting {
  Approvals& approvals;
  HangupWatch& hangups;
  GrantBook& grants;
  std::int64_t generation = 0;
  int socket = -1;
  pid_t peer = 0;
  std::shared_ptr<const crypto::SymmetricKey> clipboardKey;
  /// Of the whole request; valid while it is handled.
  std::string_view bytes;
};

/// ServerRequest is the Call of one request in flight. One thread.
class ServerRequest : public Call {
 public:
  ServerRequest(AgentRequest request, Caller caller, const RequestSetting& setting)
      : Call(std::move(request), std::move(caller)), setting_(setting) {}
  ~ServerRequest() override;
  ServerRequest(const ServerRequest&) = delete;
  ServerRequest& operator=(const ServerRequest&) = delete;

  const std::string& requester() override;
  ApprovalResult ask(const OperationQuestion& question) override;
  std::stop_token withdrawn() override;
  std::string fingerprint(const base::SecretText& text) override;
  pid_t peer() const override { return setting_.peer; }

 private:
  const std::vector<base::ProcessInfo>& processes();
  /// Whether the caller still is what it was when its request came in.
  bool isUnchanged();

  const RequestSetting setting_;
  std::string requester_;
  std::optional<std::vector<base::ProcessInfo>> processes_;
  std::optional<HangupWatch::Id> watched_;
  std::stop_source stop_{std::nostopstate};
};

}  // namespace sorvane::agent
