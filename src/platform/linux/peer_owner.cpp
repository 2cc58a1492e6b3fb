#include "platform/linux/peer_owner.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace sorvane::platform {
namespace {

// As many as the server asks at once; more would lie about unused.
constexpr std::size_t kMostIdle = 4;

struct Question {
  nlmsghdr header{};
  inet_diag_req_v2 request{};
};

Question questionAbout(const proxy::TcpEnd& client, const proxy::TcpEnd& server) {
  Question question;
  question.header.nlmsg_len = sizeof question;
  question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  question.header.nlmsg_flags = NLM_F_REQUEST;
  question.request.sdiag_family = AF_INET;
  question.request.sdiag_protocol = IPPROTO_TCP;
  question.request.idiag_states = ~0U;
  // The client's socket is asked for: its own end is the source.
  question.request.id.idiag_sport = htons(client.port);
  question.request.id.idiag_dport = htons(server.port);
  question.request.id.idiag_src[0] = htonl(client.address);
  question.request.id.idiag_dst[0] = htonl(server.address);
  question.request.id.idiag_cookie[0] = question.request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  return question;
}

std::optional<uid_t> readAnswer(const char* bytes, std::size_t size, const Question& question) {
  nlmsghdr header{};
  inet_diag_msg socket{};
  if (size < NLMSG_HDRLEN + sizeof socket) return std::nullopt;
  std::memcpy(&header, bytes, sizeof header);
  if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY) return std::nullopt;
  std::memcpy(&socket, bytes + NLMSG_HDRLEN, sizeof socket);
  // A listener on the client's port answers when the connection itself is gone; it has no other end.
  const bool same = socket.id.idiag_sport == question.request.id.idiag_sport &&
                    socket.id.idiag_dport == question.request.id.idiag_dport;
  // Without an inode no process holds the socket any more, and the kernel names root as its owner.
  if (!same || socket.idiag_inode == 0) return std::nullopt;
  return socket.idiag_uid;
}

}  // namespace

std::optional<uid_t> LinuxPeerOwners::ownerOf(const proxy::TcpEnd& client, const proxy::TcpEnd& server) {
  base::Descriptor socket = takeSocket();
  const Question question = questionAbout(client, server);
  if (!socket || ::send(socket.get(), &question, sizeof question, 0) != static_cast<ssize_t>(sizeof question)) {
    return std::nullopt;
  }
  std::array<char, 4096> answer{};
  ssize_t got = 0;
  do {
    got = ::recv(socket.get(), answer.data(), answer.size(), MSG_DONTWAIT);
  } while (got < 0 && errno == EINTR);
  if (got <= 0) return std::nullopt;
  keep(std::move(socket));
  return readAnswer(answer.data(), static_cast<std::size_t>(got), question);
}

base::Descriptor LinuxPeerOwners::takeSocket() {
  {
    const base::Lock lock(mutex_);
    if (!idle_.empty()) {
      base::Descriptor socket = std::move(idle_.back());
      idle_.pop_back();
      return socket;
    }
  }
  base::Descriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  // Connected to the kernel, it takes no message of anybody else.
  if (socket && ::connect(socket.get(), reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) != 0) return {};
  return socket;
}

void LinuxPeerOwners::keep(base::Descriptor socket) {
  const base::Lock lock(mutex_);
  if (idle_.size() < kMostIdle) idle_.push_back(std::move(socket));
}

}  // namespace sorvane::platform
