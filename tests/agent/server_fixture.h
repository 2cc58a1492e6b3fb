#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/process_host.h"
#include "agent/server.h"
#include "base/support_folder.h"
#include "crypto/digest.h"
#include "support/doubles.h"

namespace sorvane::test {

/// Grants that a test sets.
class FakeGrantBook final : public agent::GrantBook {
 public:
  std::shared_ptr<const std::vector<agent::ClientGrant>> current() override {
    const base::Lock lock(mutex_);
    return grants_;
  }
  void environmentRemoved(std::string_view name) override {
    const base::Lock lock(mutex_);
    removed_.emplace_back(name);
  }
  void set(std::vector<agent::ClientGrant> grants) {
    const base::Lock lock(mutex_);
    grants_ = std::make_shared<const std::vector<agent::ClientGrant>>(std::move(grants));
  }
  std::vector<std::string> removed() {
    const base::Lock lock(mutex_);
    return removed_;
  }

 private:
  base::Mutex mutex_;
  std::shared_ptr<const std::vector<agent::ClientGrant>> grants_ GUARDED_BY(mutex_) =
      std::make_shared<const std::vector<agent::ClientGrant>>();
  std::vector<std::string> removed_ GUARDED_BY(mutex_);
};

struct Asked {
  agent::OwnerApprovalPrompt prompt;
  agent::ApprovalContext context;
};

/// What was asked, shared by both ways of asking.
class AskedList {
 public:
  void add(const agent::OwnerApprovalPrompt& prompt, const agent::ApprovalContext& context) {
    const base::Lock lock(mutex_);
    asked_.push_back({prompt, context});
    more_.notify_all();
  }
  std::vector<Asked> all() {
    const base::Lock lock(mutex_);
    return asked_;
  }
  /// Blocks until at least `count` questions were asked.
  Asked waitFor(std::size_t count) {
    base::Lock lock(mutex_);
    while (asked_.size() < count) more_.wait(lock.mutex());
    return asked_[count - 1];
  }

 private:
  base::Mutex mutex_;
  base::Condition more_;
  std::vector<Asked> asked_ GUARDED_BY(mutex_);
};

/// The application's way to ask: answers what the test says.
class ScriptedProvider final : public agent::ApprovalProvider {
 public:
  std::function<std::optional<bool>(const Asked&)> answer = [](const Asked&) { return std::optional(true); };
  AskedList asked;
  std::optional<bool> ask(const agent::OwnerApprovalPrompt& prompt, const agent::ApprovalContext& context) override {
    asked.add(prompt, context);
    return answer({prompt, context});
  }
};

class ScriptedSystemPrompt final : public agent::SystemOwnerPrompt {
 public:
  Answer reply{false, "no prompt in tests"};
  AskedList asked;
  Answer ask(const agent::OwnerApprovalPrompt& prompt, const agent::ApprovalContext& context) override {
    asked.add(prompt, context);
    return reply;
  }
};

/// Blocks the answer until the request is withdrawn, as an owner who is away.
inline std::optional<bool> untilWithdrawn(const Asked& asked) {
  base::Mutex mutex;
  base::Condition never;
  std::unique_lock<base::Mutex> lock(mutex);
  never.wait(lock, asked.context.withdrawn, [] { return false; });
  return std::nullopt;
}

class RecordingNotifier final : public agent::Notifier {
 public:
  void notify(const std::string& title, const std::string& body) override {
    const base::Lock lock(mutex_);
    shown_.push_back(title + " | " + body);
  }
  std::vector<std::string> shown() {
    const base::Lock lock(mutex_);
    return shown_;
  }

 private:
  base::Mutex mutex_;
  std::vector<std::string> shown_ GUARDED_BY(mutex_);
};

/// A host whose commands print what they got and end, or run until they are signalled.
class FakeHost final : public agent::ProcessHost {
 public:
  bool runsUntilSignalled = false;
  base::Mutex mutex;
  base::Condition launchedOne;
  std::vector<std::string> words GUARDED_BY(mutex), environment GUARDED_BY(mutex);
  std::string directory GUARDED_BY(mutex);
  int launches GUARDED_BY(mutex) = 0;

  std::unique_ptr<agent::HostedProcess> launch(const agent::LaunchSpec& spec) override {
    const base::Lock lock(mutex);
    ++launches;
    words = spec.words;
    directory = spec.directory;
    environment.clear();
    std::string printed;
    for (const base::SecretText& entry : spec.environment) {
      environment.emplace_back(entry.view());
      printed += std::string(entry.view()) + "\n";
    }
    launchedOne.notify_all();
    return std::make_unique<Process>(printed, runsUntilSignalled);
  }
  void waitForLaunch() {
    base::Lock lock(mutex);
    while (launches == 0) launchedOne.wait(lock.mutex());
  }

 private:
  class Process final : public agent::HostedProcess {
   public:
    Process(const std::string& printed, bool runs) {
      std::array<int, 2> ends{};
      if (::pipe(ends.data()) != 0) throw agent::LaunchError("no pipe");
      output_.reset(ends[0]);
      write_.reset(ends[1]);
      [[maybe_unused]] const auto written = ::write(write_.get(), printed.data(), printed.size());
      if (::pipe(ends.data()) != 0) throw agent::LaunchError("no pipe");
      ended_.reset(ends[0]);
      alive_.reset(ends[1]);
      if (!runs) end();
    }
    pid_t group() const override { return 1; }
    int output() const override { return output_.get(); }
    int ended() const override { return ended_.get(); }
    std::int32_t wait() override {
      char ignored;
      while (::read(ended_.get(), &ignored, 1) > 0) continue;
      return 0;
    }
    void signal(int) override { end(); }
    void clear() override {}

   private:
    void end() {
      const base::Lock lock(mutex_);
      write_.reset();
      alive_.reset();
    }
    base::Mutex mutex_;
    base::Descriptor output_, ended_, write_, alive_;
  };
};

class FakeActions final : public agent::OwnerActions {
 public:
  std::function<agent::AgentResponse(agent::ActionCall&)> action = [](agent::ActionCall&) {
    agent::AgentResponse response;
    response.ok = true;
    return response;
  };
  agent::AgentResponse perform(agent::ActionCall& call) override { return action(call); }
};

/// A running server over a vault in a throwaway folder.
class ServerFixture : public ::testing::Test {
 protected:
  void SetUp() override { begin(); }
  void TearDown() override { server_.reset(); }

  void begin(std::chrono::milliseconds watchEvery = std::chrono::milliseconds::zero()) {
    server_.reset();
    agent::Handlers::Ports handlers{vault_,
                                    grants_,
                                    actions_,
                                    runner_,
                                    notifier_,
                                    sessions_,
                                    keyFiles_,
                                    clipboard_,
                                    copied_,
                                    clock_,
                                    {"PATH=/bin", "LANG=C"},
                                    "/",
                                    folder_.path(),
                                    {},
                                    proxy()};
    agent::Approvals::Ports approvals{
        &provider_, system_, [this] { return policy_.load(); }, [this] { return approver_.load(); }, {}, clock_};
    server_ = std::make_unique<agent::AgentServer>(agent::AgentServer::Settings{folder_.path(), watchEvery},
                                                   agent::AgentServer::Ports{files_, handlers, approvals});
    ASSERT_TRUE(server_->start());
  }

  /// The proxy of a test that has one.
  virtual proxy::LocalProxyBroker* proxy() { return nullptr; }

  std::filesystem::path socketPath() const { return folder_.path() / base::kSocketName; }
  std::filesystem::path endpointPath() const { return folder_.path() / base::kEndpointName; }
  agent::AgentInfo endpoint() {
    const auto contents = files_.read(endpointPath());
    auto info = contents ? agent::decodeInfo(base::textOf(contents->bytes)) : std::nullopt;
    if (!info) throw std::runtime_error("no endpoint");
    return std::move(*info);
  }

  base::Descriptor connected() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, socketPath().c_str());
    base::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return {};
    return socket;
  }
  static void send(int socket, std::string_view text) {
    while (!text.empty()) {
      const ssize_t sent = ::send(socket, text.data(), text.size(), MSG_NOSIGNAL);
      if (sent <= 0) return;
      text.remove_prefix(static_cast<std::size_t>(sent));
    }
  }
  static std::string receive(int socket) {
    std::string text;
    std::array<char, 65536> piece;
    for (ssize_t got; (got = ::recv(socket, piece.data(), piece.size(), 0)) > 0;) {
      text.append(piece.data(), static_cast<std::size_t>(got));
    }
    return text;
  }
  std::string exchangeBytes(std::string_view bytes) {
    const base::Descriptor socket = connected();
    send(socket.get(), bytes);
    ::shutdown(socket.get(), SHUT_WR);
    return receive(socket.get());
  }
  agent::AgentResponse ask(const agent::AgentRequest& request) {
    auto response = agent::decodeResponse(exchangeBytes(agent::encodeRequest(request).view()));
    if (!response) throw std::runtime_error("no answer");
    return std::move(*response);
  }
  /// A request with the controller's token.
  agent::AgentRequest request(agent::AgentOp op, std::optional<std::string> arg = {},
                              std::optional<std::string> environment = {}) {
    agent::AgentRequest request;
    request.token = endpoint().token.clone();
    request.op = op;
    request.arg = std::move(arg);
    request.environment = std::move(environment);
    return request;
  }
  /// The same with the token of a grant.
  static agent::AgentRequest granted(agent::AgentRequest request, std::string_view token) {
    request.token = base::SecretText(token);
    return request;
  }
  static agent::ClientGrant grant(std::string_view token, std::optional<std::string> scope, bool allowReveal) {
    return {"id-" + std::string(token),
            crypto::sha256Hex(base::bytesOf(token)),
            "Agent",
            std::move(scope),
            allowReveal,
            false};
  }

  vault::Project environment(const std::string& name) {
    vault::NewEnvironment made;
    made.name = name;
    return vault_.createEnvironment(made);
  }
  vault::Secret secret(const std::string& name, std::string_view value) {
    vault::NewSecret made;
    made.name = name;
    made.first.value = base::SecretText(value);
    return vault_.createSecret(std::move(made));
  }
  void bound(const vault::Project& project, const std::string& variable, const vault::Secret& secret) {
    vault_.bind(project.id, vault::EnvBinding{variable, secret.id, {}, {}});
  }

  TemporaryFolder folder_;
  base::SystemFiles files_;
  MemorySecretStore store_;
  ManualClock clock_;
  agent::TaskSessions sessions_{clock_};
  vault::Vault vault_{folder_.path() / "vault", {files_, store_, clock_, sessions_}};
  FakeGrantBook grants_;
  FakeActions actions_;
  FakeHost host_;
  agent::CommandRunner runner_{host_};
  agent::KeyEnvFiles keyFiles_{folder_.path() / base::kKeyFilesName, files_, clock_, runner_, {"PATH=/bin:/usr/bin"}};
  MemoryClipboard clipboard_;
  agent::CopiedValue copied_{clipboard_};
  RecordingNotifier notifier_;
  ScriptedProvider provider_;
  ScriptedSystemPrompt system_;
  std::atomic<agent::AgentApproval> policy_{agent::AgentApproval::perRequest};
  std::atomic<agent::Approver> approver_{agent::Approver::any};
  std::unique_ptr<agent::AgentServer> server_;
};

}  // namespace sorvane::test
