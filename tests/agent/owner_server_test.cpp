#include "agent/owner_server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <thread>

#include "agent/client.h"
#include "base/lock_file.h"
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

/// Of a request to lock nobody needs to know when its peer goes away.
bool isWatched(const agent::LockCaller& caller) {
  return caller.gone.stop_possible();
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
  OwnerRestoreDouble restore_;
  std::optional<agent::OwnerServer> server_{std::in_place, folder_.path(),
                                            agent::OwnerServer::Ports{files_, lock_, restore_},
                                            std::chrono::milliseconds::zero()};
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

TEST_F(OwnerServer, handsBackupsToTheRestoreAndTellsCountsAlone) {
  ASSERT_TRUE(server_->start());
  const OwnerAnswer unopened = ask(R"({"op":"backupPreview","file":"/b"})");
  EXPECT_EQ(unopened.outcome.sentence, "This backup needs its recovery key.");
  ASSERT_TRUE(unopened.backup);
  EXPECT_FALSE(unopened.backup->opened);
  EXPECT_TRUE(unopened.backup->isEncrypted && unopened.backup->hasRecoveryKey && !unopened.backup->hasPassphrase);
  const OwnerAnswer opened = ask(R"({"op":"backupPreview","file":"/b","recoveryKey":"K"})");
  ASSERT_TRUE(opened.backup && opened.backup->opened);
  const agent::OpenedBackupCounts& counts = *opened.backup->opened;
  EXPECT_EQ((std::vector{counts.secrets, counts.environments, counts.versions, counts.values, counts.events,
                         counts.providerKeys}),
            (std::vector<std::int64_t>{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(opened.backup->sha256, "ab12");
  EXPECT_EQ(
      ask(R"({"op":"backupRestore","file":"/b","sha256":"ab12","passphrase":"p","protectKeys":true})").outcome.sentence,
      "Set aside.");
  EXPECT_EQ(restore_.calls,
            (std::vector<std::string>{"preview /b", "preview /b key K", "restore /b passphrase p ab12 protecting"}));
  for (const char* const bad :
       {R"({"op":"backupRestore","file":"/b"})", R"({"op":"backupRestore","sha256":"ab12"})",
        R"({"op":"backupPreview"})", R"({"op":"backupPreview","file":"b"})",
        R"({"op":"backupPreview","file":"/b","sha256":"ab12"})", R"({"op":"unlock","recoveryKey":"K"})"}) {
    EXPECT_EQ(ask(bad).outcome.code, "badRequest") << bad;
  }
  EXPECT_EQ(restore_.calls.size(), 3U);
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
            agent::LockReport::Progress{3, 9},
            true,
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
  EXPECT_TRUE(told.status->phoneUnlocks && told.status->heldLocked && told.status->storeIsSealed &&
              told.status->isManaged);
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
    agent::OwnerServer second(folder_.path(), {files_, lock, restore_});
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

TEST_F(OwnerServer, aLockFindsAPlaceBesideAnyNumberOfRequestsThatWait) {
  std::atomic<bool> isAway = true;
  lock_.reply = [&isAway](const agent::LockCaller& caller) {
    return isAway && isWatched(caller) ? untilGone(caller) : LockOutcome{};
  };
  ASSERT_TRUE(server_->start());
  std::vector<base::Descriptor> waiting;
  for (std::size_t i = 0; i < agent::OwnerServer::kMostWaiting; ++i) {
    waiting.push_back(connected());
    send(waiting.back().get(), R"({"op":"unlock"})");
  }
  lock_.waitFor(agent::OwnerServer::kMostWaiting);
  for (int i = 0; i < 80; ++i) EXPECT_EQ(ask(R"({"op":"reset"})").outcome.code, "busy") << i;
  EXPECT_TRUE(ask(R"({"op":"status"})").status);
  EXPECT_EQ(ask(R"({"op":"lock"})").outcome.kind, Kind::done);
  isAway = false;
  // A place is given back.
  waiting.front().reset();
  while (ask(R"({"op":"reset"})").outcome.code == "busy") std::this_thread::yield();
}

TEST_F(OwnerServer, aSocketThatIsRemovedOrReplacedIsBoundAnew) {
  server_.emplace(folder_.path(), agent::OwnerServer::Ports{files_, lock_, restore_}, std::chrono::milliseconds(20));
  lock_.reply = [](const agent::LockCaller& caller) { return isWatched(caller) ? untilGone(caller) : LockOutcome{}; };
  ASSERT_TRUE(server_->start());
  const base::Descriptor before = connected();
  send(before.get(), R"({"op":"reset"})");
  lock_.waitFor(1);

  std::filesystem::remove(path());
  while (!agent::socketAt(path())) std::this_thread::yield();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path().c_str());
  std::filesystem::remove(path());
  const base::Descriptor another(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::bind(another.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(another.get(), 4), 0);
  const auto replaced = agent::socketAt(path());
  for (auto now = replaced; !now || now == replaced; now = agent::socketAt(path())) std::this_thread::yield();

  base::Descriptor served = connected();
  while (!served) served = connected();  // bound, not yet listening
  send(served.get(), R"({"op":"lock"})");
  const auto answer = agent::decodeOwnerAnswer(received(served.get()));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->outcome.kind, Kind::done);
  server_->stop();
  EXPECT_NE(received(before.get()), "") << "a request from before the change is still answered";
  EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(OwnerServer, aPassphraseIsSentToTheHolderOfTheLockFileAlone) {
  const std::filesystem::path lockPath = folder_.path() / base::kLockName;
  agent::OwnerRequest unlock, change, status;
  unlock.op = agent::OwnerOp::unlock;
  unlock.passphrase.emplace("made-up words");
  change.op = agent::OwnerOp::setPassphrase;
  change.newPassphrase.emplace("made-up words");
  change.confirmation.emplace("made-up words");
  change.requirement = "only";
  const auto refused = [&](const agent::OwnerRequest& request) {
    try {
      agent::askOwner(folder_.path(), request, {});
    } catch (const agent::ClientError& error) {
      return error.kind() == agent::ClientError::Case::unavailable &&
             error.sentence().find("the passphrase was not sent") != std::string::npos &&
             error.sentence().find(std::to_string(::getpid())) != std::string::npos;
    }
    return false;
  };

  // Another process holds it, and the file names this one: what the file says is not believed. Before the server's
  // threads.
  std::array<int, 2> ready{};
  ASSERT_EQ(::pipe(ready.data()), 0);
  const std::string named = std::to_string(::getpid()) + "\n";
  std::ofstream(lockPath) << named;
  const int file = ::open(lockPath.c_str(), O_RDWR | O_CLOEXEC);
  const pid_t holder = ::fork();
  if (holder == 0) {
    const bool held = ::flock(file, LOCK_EX | LOCK_NB) == 0;
    if (::write(ready[1], held ? "y" : "n", 1) != 1) ::_exit(1);
    for (;;) ::pause();
  }
  ::close(file);
  char held = 'n';
  ASSERT_EQ(::read(ready[0], &held, 1), 1);
  for (const int end : ready) ::close(end);
  ASSERT_TRUE(server_->start());
  const bool believedNothing = held == 'y' && refused(unlock) && refused(change);
  EXPECT_TRUE(agent::askOwner(folder_.path(), status, {}).status) << "what holds no passphrase is sent";
  ::kill(holder, SIGKILL);
  ::waitpid(holder, nullptr, 0);
  EXPECT_TRUE(believedNothing);

  EXPECT_TRUE(refused(unlock)) << "nobody holds it";
  std::filesystem::remove(lockPath);
  EXPECT_TRUE(refused(change)) << "there is none";
  EXPECT_EQ(lock_.calls(), std::vector<std::string>());
  const base::LockFile mine(lockPath);
  EXPECT_EQ(agent::askOwner(folder_.path(), unlock, {}).outcome.kind, Kind::done);
  EXPECT_EQ(lock_.calls(), std::vector<std::string>{"passphrase made-up words"});
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
