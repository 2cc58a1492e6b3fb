#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <thread>
#include <vector>

#include "apple/fake/processes.h"
#include "base/hangup.h"
#include "base/open_descriptors.h"
#include "platform/adapters.h"
#include "platform/macos/peer_owner.h"
#include "platform/macos/process_host.h"
#include "platform/macos/process_watch.h"
#include "support/process_watch_contract.h"

namespace sorvane::platform {

// The suite of the command runner runs here with the host of macOS.
std::unique_ptr<agent::ProcessHost> makeProcessHost() {
  return std::make_unique<MacProcessHost>();
}

namespace {

proxy::TcpEnd endOf(int socket, int (*ask)(int, sockaddr*, socklen_t*)) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  ask(socket, reinterpret_cast<sockaddr*>(&address), &size);
  return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
}

class PeerOwners : public ::testing::Test {
 protected:
  PeerOwners() : listener_(base::openSocket(AF_INET, SOCK_STREAM)) {
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(listener_.get(), reinterpret_cast<sockaddr*>(&any), sizeof any);
    ::listen(listener_.get(), 4);
    address_ = any;
    address_.sin_port = htons(endOf(listener_.get(), &::getsockname).port);
  }
  int connect(int socket) { return ::connect(socket, reinterpret_cast<sockaddr*>(&address_), sizeof address_); }

  const base::Descriptor listener_;
  sockaddr_in address_{};
  LibprocPeerOwners owners_;
};

TEST_F(PeerOwners, theUserOfExactlyThisConnectionIsNamed) {
  base::Descriptor socket = base::openSocket(AF_INET, SOCK_STREAM);
  ASSERT_EQ(connect(socket.get()), 0);
  const proxy::TcpEnd client = endOf(socket.get(), &::getsockname), server = endOf(socket.get(), &::getpeername);
  EXPECT_EQ(owners_.ownerOf(client, server), ::geteuid());
  const auto turned = [](std::uint16_t port) { return static_cast<std::uint16_t>(port << 8 | port >> 8); };
  const proxy::TcpEnd other{client.address + 1, client.port};
  EXPECT_EQ(owners_.ownerOf(other, server), std::nullopt);
  EXPECT_EQ(owners_.ownerOf({client.address, static_cast<std::uint16_t>(client.port + 1)}, server), std::nullopt);
  EXPECT_EQ(owners_.ownerOf({client.address, turned(client.port)}, server), std::nullopt);
  EXPECT_EQ(owners_.ownerOf({htonl(client.address), client.port}, {htonl(server.address), server.port}), std::nullopt);
  // Nobody has accepted it, so no process holds the other end yet.
  EXPECT_EQ(owners_.ownerOf(server, client), std::nullopt);
  socket.reset();
  EXPECT_EQ(owners_.ownerOf(client, server), std::nullopt);
}

TEST_F(PeerOwners, aTableThatGrewIsAskedForAgainAndOneThatNeverStopsGivenUp) {
  const base::Descriptor socket = base::openSocket(AF_INET, SOCK_STREAM);
  ASSERT_EQ(connect(socket.get()), 0);
  const proxy::TcpEnd client = endOf(socket.get(), &::getsockname), server = endOf(socket.get(), &::getpeername);
  fake::growNextTables(3);
  EXPECT_EQ(owners_.ownerOf(client, server), ::geteuid());
  fake::growNextTables(1'000'000);
  EXPECT_EQ(owners_.ownerOf(client, server), std::nullopt);
  fake::growNextTables(0);
}

TEST_F(PeerOwners, aSocketOfBothVersionsIsFound) {
  const base::Descriptor socket = base::openSocket(AF_INET6, SOCK_STREAM);
  if (!socket) GTEST_SKIP() << "there is no IPv6 here";
  sockaddr_in6 mapped{};
  mapped.sin6_family = AF_INET6;
  mapped.sin6_port = address_.sin_port;
  ::inet_pton(AF_INET6, "::ffff:127.0.0.1", &mapped.sin6_addr);
  ASSERT_EQ(::connect(socket.get(), reinterpret_cast<sockaddr*>(&mapped), sizeof mapped), 0);
  const base::Descriptor accepted = base::acceptFrom(listener_.get());
  EXPECT_EQ(owners_.ownerOf(endOf(accepted.get(), &::getpeername), endOf(accepted.get(), &::getsockname)), ::geteuid());
}

TEST_F(PeerOwners, anotherUsersProcessIsAStranger) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  auto ready = base::openPipe(), leave = base::openPipe();
  const pid_t other = ::fork();
  if (other == 0) {
    leave->write.reset();
    const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
    char word = ::setuid(65534) == 0 && connect(socket) == 0 ? 'y' : 'n';
    [[maybe_unused]] const auto told = ::write(ready->write.get(), &word, 1);
    [[maybe_unused]] const auto waited = ::read(leave->read.get(), &word, 1);
    ::_exit(0);
  }
  char word = 0;
  ASSERT_EQ(::read(ready->read.get(), &word, 1), 1);
  ASSERT_EQ(word, 'y');
  const base::Descriptor accepted = base::acceptFrom(listener_.get());
  const auto owner = owners_.ownerOf(endOf(accepted.get(), &::getpeername), endOf(accepted.get(), &::getsockname));
  EXPECT_EQ(owner, std::nullopt);
  leave->write.reset();
  ::waitpid(other, nullptr, 0);
}

TEST(Hangup, onlyAPeerThatIsGoneCountsAndAWakeUpEndsTheWait) {
  auto halfClosed = base::openSocketPair(), gone = base::openSocketPair();
  const auto wake = base::openWakePipe();
  const std::vector<int> sockets{halfClosed->first.get(), gone->first.get()};
  ASSERT_EQ(::send(halfClosed->second.get(), "r", 1, 0), 1);
  ::shutdown(halfClosed->second.get(), SHUT_WR);
  base::wake(*wake);
  EXPECT_EQ(base::waitForHangup(sockets, wake->read.get()), std::vector<std::size_t>{});
  base::drain(*wake);
  std::thread leaving([&] { gone->second.reset(); });
  EXPECT_EQ(base::waitForHangup(sockets, wake->read.get()), std::vector<std::size_t>{1});
  leaving.join();
}

}  // namespace
}  // namespace sorvane::platform

namespace sorvane::test {

INSTANTIATE_TYPED_TEST_SUITE_P(Kqueue, ProcessWatchContract, platform::KqueueWatch);

}  // namespace sorvane::test
