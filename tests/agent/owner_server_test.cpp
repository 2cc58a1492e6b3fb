#include "agent/owner_server.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <fstream>
#include <thread>

#include "agent/client.h"
#include "base/support_folder.h"
#include "support/doubles.h"
#include "support/owner_lock_double.h"

namespace sorvane::test {
namespace {

using agent::LockOutcome;
using agent::OwnerAnswer;
using Kind = LockOutcome::Kind;

/// Blocks until the request is withdrawn, as an owner who is away.
LockOutcome untilGone(const agent::LockCaller& caller) {
  base::Mutex mutex;
  base::Condition never;
  std::unique_lock<base::Mutex> lock(mutex);
  never.wait(lock, caller.gone, [] { return false; });
  return {Kind::refused, "cancelled", "Couldn’t verify. Try again."};
}

class OwnerServer : public ::testing::Test {
 protected:
  std::filesystem::path path() const { return folder_.path() / base::kOwnerSocketName; }

  base::Descriptor connected() const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path().c_str());
    base::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return {};
    return socket;
  }
  static void send(int socket, std::string_view text) {
    [[maybe_unused]] const auto sent = ::send(socket, text.data(), text.size(), MSG_NOSIGNAL);
    ::shutdown(socket, SHUT_WR);
  }
  static std::string received(int socket) {
    std::string text;
    std::array<char, 4096> piece;
    for (ssize_t got; (got = ::recv(socket, piece.data(), piece.size(), 0)) > 0;) {
      text.append(piece.data(), static_cast<std::size_t>(got));
    }
    return text;
  }
  OwnerAnswer ask(std::string_view text) const {
    const base::Descriptor socket = connected();
    send(socket.get(), text);
    auto answer = agent::decodeOwnerAnswer(received(socket.get()));
    if (!answer) throw std::runtime_error("no answer");
    return std::move(*answer);
  }

  TemporaryFolder folder_;
  base::SystemFiles files_;
  OwnerLockDouble lock_;
  std::optional<agent::OwnerServer> server_{std::in_place, folder_.path(), agent::OwnerServer::Ports{files_, lock_}};
};

TEST_F(OwnerServer, handsEachRequestToTheLockAndRefusesWhatIsNoRequest) {
  ASSERT_TRUE(server_->start());
  struct stat status {};
  ASSERT_EQ(::lstat(path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);

  const struct {
    const char *request, *call;  ///< nullptr: nothing reached the lock
  } cases[] = {
      {R"({"op":"unlock"})", "system first"},
      {R"({"op":"unlock","method":"password"})", "system password"},
      {R"({"op":"unlock","passphrase":"made-up words"})", "passphrase made-up words"},
      {R"({"op":"lock"})", "lock"},
      {R"({"op":"lock","hold":true})", "lock held"},
      {R"({"op":"setPassphrase","newPassphrase":"a","confirmation":"b","requirement":"only"})", "set a b only"},
      {R"({"op":"changePassphrase","passphrase":"o","newPassphrase":"a","confirmation":"b"})", "change o a b"},
      {R"({"op":"removePassphrase"})", "remove"},
      {R"({"op":"removePassphrase","passphrase":"o"})", "remove with o"},
      {R"({"op":"require","requirement":"off","passphrase":"o"})", "require off with o"},
      {R"({"op":"require","requirement":"withSystem"})", "require withSystem"},
      {R"({"op":"followSession","follows":false})", "follow off"},
      {R"({"op":"reset","answersItself":true})", "reset"},
      {R"({"op":"unlock","hold":true})", nullptr},
      {R"({"op":"unlock","passphrase":"a\u0000b"})", nullptr},
      {R"({"op":"unlock","passphrase":"a","passphrase":"b"})", nullptr},
      {R"({"op":"unlock","method":"other"})", nullptr},
      {R"({"op":"unlock","note":"unknown"})", nullptr},
      {R"({"op":"setPassphrase","newPassphrase":"a","confirmation":"b"})", nullptr},
      {R"({"op":"setPassphrase","newPassphrase":"a","confirmation":"b","requirement":"off"})", nullptr},
      {R"({"op":"changePassphrase","newPassphrase":"a","confirmation":"b"})", nullptr},
      {R"({"op":"changePassphrase","passphrase":null,"newPassphrase":"a","confirmation":"b"})", nullptr},
      {R"({"op":"require","requirement":"never"})", nullptr},
      {R"({"op":"followSession","follows":"on"})", nullptr},
      {R"({"op":"open"})", nullptr},
      {R"({"passphrase":"a"})", nullptr},
      {"[]", nullptr},
      {"", nullptr},
  };
  std::vector<std::string> expected;
  for (const auto& c : cases) {
    const OwnerAnswer answer = ask(c.request);
    EXPECT_EQ(answer.outcome.kind, c.call == nullptr ? Kind::refused : Kind::done) << c.request;
    EXPECT_EQ(answer.outcome.code, c.call == nullptr ? "badRequest" : "") << c.request;
    if (c.call != nullptr) expected.emplace_back(c.call);
    EXPECT_EQ(lock_.calls(), expected) << c.request;
  }
  EXPECT_EQ(lock_.waitFor(1).peer, ::getpid());
  EXPECT_FALSE(lock_.waitFor(1).answersItself);
  EXPECT_TRUE(lock_.waitFor(expected.size()).answersItself);
  EXPECT_EQ(ask(R"({"op":"lock","hold":)" + std::string(agent::kMaxRequestBytes, ' ') + "true}").outcome.code,
            "requestTooLarge");
}

TEST_F(OwnerServer, reportsTheLockAsItIs) {
  agent::LockReport& report = lock_.lockReport;
  report = {false,
            "passphrase",
            "sorvane opens with its passphrase.",
            "withSystem",
            true,
            false,
            true,
            true,
            true,
            false,
            30,
            "embedded",
            true,
            "There is no agent.",
            {"One.", "Two."},
            "1.2.3",
            "/some/folder"};
  ASSERT_TRUE(server_->start());
  agent::OwnerRequest request;
  const auto told = agent::askOwner(folder_.path(), request, {});
  ASSERT_TRUE(told.status);
  // Written again it is the same text, field by field.
  EXPECT_EQ(agent::encodeOwnerAnswer(told).view(), agent::encodeOwnerAnswer({{}, report}).view());
  EXPECT_EQ(told.status->systemCheckUnavailable, "There is no agent.");
  EXPECT_EQ(told.status->waitSeconds, 30);
  EXPECT_TRUE(told.status->heldLocked && told.status->storeIsSealed && told.status->isManaged);
}

TEST_F(OwnerServer, aPeerThatLeavesAndAStopWithdrawWhatTheyWaitFor) {
  lock_.reply = untilGone;
  ASSERT_TRUE(server_->start());
  base::Descriptor leaving = connected();
  send(leaving.get(), R"({"op":"unlock"})");
  const agent::LockCaller left = lock_.waitFor(1);
  const base::Descriptor staying = connected();
  send(staying.get(), R"({"op":"reset"})");
  const agent::LockCaller stayed = lock_.waitFor(2);

  leaving.reset();
  EXPECT_EQ(untilGone(left).code, "cancelled");
  EXPECT_FALSE(stayed.gone.stop_requested()) << "the control";
  server_->stop();
  EXPECT_TRUE(stayed.gone.stop_requested());
  const auto answer = agent::decodeOwnerAnswer(received(staying.get()));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->outcome.code, "cancelled");
  EXPECT_FALSE(std::filesystem::exists(path()));
  EXPECT_TRUE(server_->start()) << "it starts again";
}

TEST_F(OwnerServer, replacesTheSocketOfADeadProcessAndNothingElse) {
  ASSERT_TRUE(server_->start());
  {
    OwnerLockDouble lock;
    agent::OwnerServer second(folder_.path(), {files_, lock});
    EXPECT_FALSE(second.start()) << "the first one lives";
  }
  EXPECT_EQ(ask(R"({"op":"lock"})").outcome.kind, Kind::done) << "and was left alone";

  // A file that another program puts there meanwhile stays.
  std::filesystem::remove(path());
  std::ofstream(path()) << "another's";
  server_->stop();
  EXPECT_FALSE(server_->start());
  EXPECT_EQ(std::filesystem::file_size(path()), 9U);
  std::filesystem::remove(path());
  std::filesystem::create_symlink("elsewhere", path());
  EXPECT_FALSE(server_->start());
  EXPECT_TRUE(std::filesystem::is_symlink(path()));

  std::filesystem::remove(path());
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path().c_str());
  {
    const base::Descriptor dead(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::bind(dead.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  EXPECT_TRUE(server_->start());
  EXPECT_EQ(ask(R"({"op":"lock"})").outcome.kind, Kind::done);
}

TEST_F(OwnerServer, silentConnectionsDoNotKeepTheOwnerOut) {
  ASSERT_TRUE(server_->start());
  std::vector<base::Descriptor> silent;
  for (std::size_t i = 0; i < agent::Connections::kMost + 20; ++i) silent.push_back(connected());
  EXPECT_EQ(ask(R"({"op":"lock"})").outcome.kind, Kind::done);
  server_.reset();  // ends, although they are still silent
  EXPECT_FALSE(connected());
}

TEST_F(OwnerServer, aPeerOfAnotherUserIsClosedWithoutAnAnswer) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to become another user";
  ASSERT_TRUE(server_->start());
  ::chmod(folder_.path().c_str(), 0755);
  ::chmod(path().c_str(), 0666);
  for (const uid_t user : {uid_t{65534}, uid_t{0}}) {
    std::string answer = "not asked";
    std::thread([&] {
      // Of this thread alone: the server's threads stay whose they are.
      ::syscall(SYS_setresuid, -1, user, -1);
      const base::Descriptor socket = connected();
      if (!socket) return;
      send(socket.get(), R"({"op":"lock"})");
      answer = received(socket.get());
    }).join();
    EXPECT_EQ(answer, user == 0 ? R"({"outcome":"done"})" : "") << user;
  }
  EXPECT_EQ(lock_.calls().size(), 1U);
}

}  // namespace
}  // namespace sorvane::test
