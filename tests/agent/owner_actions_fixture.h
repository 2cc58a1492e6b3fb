#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <optional>
#include <string>
#include <vector>

#include "agent/copied_value.h"
#include "agent/owner_action_handlers.h"
#include "agent/owner_backups.h"
#include "agent/owner_phones.h"
#include "agent/task_sessions.h"
#include "support/doubles.h"
#include "vault/vault_fixture.h"

namespace sorvane::test {

using agent::ActionCall;
using agent::ActionQuestion;
using agent::AgentResponse;
using agent::ApprovalResult;
using agent::Jobs;
using agent::Payload;

class StandInApplication final : public agent::VaultActions {
 public:
  agent::ApplicationState state() override { return {"1", "support folder", "nobody", {}, {}}; }
  agent::StoreState store() override { return {"embedded", "note", false}; }
  std::int64_t storeItems() override { return 0; }
  void checkStoreMove(const std::string& to) override {
    if (to != "secret-service") throw agent::ActionError("not there");
  }
  std::optional<std::string> moveStore(const std::string&, const Jobs::Step&) override { return "{}"; }
  std::vector<agent::ClientConnection> clients() override { return {connection_}; }
  agent::ClientConnection client(const std::string&, const std::string&) override { return connection_; }
  agent::ClientConnection planClient(const std::string&, const std::string&) override { return connection_; }
  void connectClient(const agent::ClientConnection&, const ClientGrantToWrite& grant) override {
    if (fails) throw agent::ActionError("the file is read-only");
    connection_.grantId = grant.id;
  }
  std::string disconnectClient(const std::string&, const std::string&) override { return "restored"; }
  std::vector<agent::FolderFinding> scan(const std::string&) override {
    return {{".env", 1, "KEY", "abc......yz", "secret"}};
  }
  void removeVault() override {}

  bool fails = false;
  void connectTo(const std::string& grantId) { connection_.grantId = grantId; }

 private:
  agent::ClientConnection connection_{"claude-code", "Claude Code", "",    "file", true, "connected",
                                      "gone",        false,         false, true,   {}};
};

/// A proxy of two grants, one of them paused, and a ledger of lines.
class StandInProxy final : public agent::OwnerProxy {
 public:
  StandInProxy() {
    proxy::ProxyGrantStatus one;
    one.summary = {"qzt_local_abcdefghijklmnop", {vault::ProxyProvider::anthropic}, 120, 500, 3, {}};
    one.client = "Agent";
    one.environmentName = "app";
    one.paused = true;
    grants.push_back(one);
    one.summary.display = "qzt_local_abzzzzzzzzzzzzzz";
    one.paused = false;
    grants.push_back(one);
  }
  std::optional<std::uint16_t> port() override { return 4711; }
  std::vector<proxy::ProxyGrantStatus> statuses() override { return grants; }
  void resume(const std::string& lookupId) override { done.push_back("resume " + lookupId); }
  void end(const std::string& lookupId) override { done.push_back("end " + lookupId); }
  std::vector<std::string> notices() override { return {"Something to read."}; }
  proxy::CallLedger::Reading readLedger(const std::function<void(std::string_view)>& take) override {
    for (const std::string& line : lines) take(line);
    return {static_cast<std::int64_t>(lines.size()), {"Line 1 was altered."}};
  }
  std::vector<proxy::PriceRow> prices() override { return proxy::PriceBook::shipped().rows(); }
  std::string fetchPrices(const std::stop_token&) override { return "Fetched."; }
  std::string ownPrices() override { return own; }
  void setOwnPrices(const std::string& prices) override { own = prices; }

  std::vector<proxy::ProxyGrantStatus> grants;
  std::vector<std::string> lines, done;
  std::string own;
};

/// Notes what it is asked for.
class StandInBackups final : public agent::OwnerBackups {
 public:
  void check(const agent::BackupOrder& order) override { noted.push_back("check " + order.file); }
  std::string create(agent::BackupOrder order, const std::string& ticket, const vault::AccessContext&,
                     const Jobs::Step&) override {
    tickets.set_value(ticket + " " + order.protection + " " + std::string(order.passphrase.view()));
    return "{}";
  }
  std::optional<base::SecretText> takeRecoveryKey(const std::string&) override { return std::nullopt; }
  void confirmRecoveryKey(const std::string& ticket) override { noted.push_back("confirmed " + ticket); }
  std::string inspect(const std::string& file) override { return "{\"file\":\"" + file + "\"}"; }
  std::string show(agent::BackupToOpen, const Jobs::Step&) override { return "{}"; }
  std::string preview(agent::BackupToOpen, const Jobs::Step&) override { return "{}"; }
  std::shared_ptr<Restore> prepareRestore(agent::BackupToOpen backup, const std::string& sha256,
                                          bool protectKeys) override {
    class Prepared final : public Restore {
     public:
      Prepared(StandInBackups& all, std::string what) : all_(all), what_(std::move(what)) {}
      std::vector<std::string> details() const override { return {"details of " + what_}; }
      std::string run(const vault::AccessContext&) override {
        all_.noted.push_back("restored " + what_);
        return "{}";
      }

     private:
      StandInBackups& all_;
      const std::string what_;
    };
    const auto& given = backup.passphrase ? backup.passphrase : backup.recoveryKey;
    return std::make_shared<Prepared>(*this, backup.file + " " + sha256 + (backup.recoveryKey ? " recovery " : " ") +
                                                 (given ? std::string(given->view()) : "unopened") +
                                                 (protectKeys ? " protecting" : ""));
  }
  void checkStepBack() override {}
  void stepBack(const vault::AccessContext&) override { noted.emplace_back("undone"); }

  std::vector<std::string> noted;
  std::promise<std::string> tickets;
};

class StandInPhones final : public agent::OwnerPhones {
 public:
  bool isAnyPaired() override { return paired; }
  bool isListKnown() override { return known; }
  void checkPairing() override {
    if (full) throw agent::ActionError("five are paired");
  }
  std::string beginPairing(Unreadable unreadable) override {
    noted.emplace_back(unreadable == Unreadable::replace ? "replaced" : "begun");
    return R"({"code":"ABCD"})";
  }
  std::string pairing() override { return R"({"state":"open"})"; }
  void cancelPairing() override { noted.emplace_back("cancelled"); }
  std::string list() override { return R"({"phones":[]})"; }
  Phone find(const std::string& phone) override {
    if (phone != "Pocket") throw agent::ActionError("no such phone");
    return {"00ff", phone};
  }
  void revoke(const std::string& id) override { noted.push_back("revoked " + id); }
  std::string test(const std::string& requestor, const std::stop_token&) override {
    noted.push_back("tested for " + requestor);
    return R"({"answer":"yes"})";
  }

  bool paired = true, known = true, full = false;
  std::vector<std::string> noted;
};

class OwnerActions : public VaultFixture {
 protected:
  void SetUp() override {
    vault().createSecret(newSecret("KEY", "made-up-value"));
    const auto id = vault().records()->secretByName("KEY")->id;
    vault().addVersion(id, newVersion("made-up-value-2"));
    const auto app = vault().createEnvironment({"app", "", {}, {}});
    vault().bind(app.id, {"KEY", id, {}, {}});
    application_.connectTo(grants_.add({"Editor", "app", false}).id);
  }

  AgentResponse act(Payload payload, std::optional<std::string> value = {}) {
    std::optional<base::SecretText> secret;
    if (value) secret.emplace(*value);
    ActionCall call{payload,
                    secret,
                    "Terminal (sorvane command line)",
                    "Terminal",
                    "identity",
                    {"Terminal", "", "test", {}},
                    [this](const ActionQuestion& question) {
                      asked_.push_back(question.prompt.reason);
                      details_ = question.details;
                      whoseYesCounts_ = question.whoseYesCounts;
                      if (whileAsked_) whileAsked_();
                      return answer_;
                    },
                    [] { return std::stop_token(); }};
    try {
      return actions_.perform(call);
    } catch (const base::Error& error) {
      return AgentResponse::refused(error.sentence());
    }
  }
  /// A provider's key that is protected, and one that is not yet.
  void makeProviderKeys() {
    vault().createSecret(newSecret("PROTECTED", "made-up-key-of-some-length"));
    vault().protectSecret(vault().records()->secretByName("PROTECTED")->id, vault::ProxyProvider::openai);
    vault().createSecret(newSecret("CLAUDE", "another-made-up-key-of-some-length"));
  }
  std::string idOf(const std::string& environment) { return vault().records()->projectByName(environment)->id; }

  agent::GrantStore grants_{folder_.path() / "agent_clients.json", systemFiles_, vault()};
  agent::ApprovalPolicy policy_{vault()};
  StandInApplication application_;
  StandInProxy proxy_;
  StandInBackups backups_;
  StandInPhones phones_;
  MemoryClipboard clipboard_;
  agent::CopiedValue copied_{clipboard_};
  agent::TaskSessions sessions_{clock_};
  Jobs jobs_{clock_};
  agent::OwnerActionHandlers actions_{{vault(), grants_, policy_, jobs_, clipboard_, copied_, sessions_, application_,
                                       clock_, &proxy_, &backups_, &phones_, [this] { return systemMissing_; }}};
  std::optional<std::string> systemMissing_;
  std::vector<std::string> asked_;
  std::vector<std::string> details_;               ///< of the last question
  std::optional<agent::Approver> whoseYesCounts_;  ///< of the last question
  std::function<void()> whileAsked_;
  ApprovalResult answer_ = ApprovalResult::byApplication;
};

}  // namespace sorvane::test
