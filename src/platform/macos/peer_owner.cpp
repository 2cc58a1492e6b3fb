#include "platform/macos/peer_owner.h"

#include <arpa/inet.h>
#include <libproc.h>
#include <unistd.h>

#include <algorithm>

#include "platform/macos/process_tables.h"

namespace sorvane::platform {
namespace {

/// The port stands in network byte order in an int.
bool isEnd(const in4in6_addr& address, int port, const proxy::TcpEnd& end) {
  return ntohl(address.i46a_addr4.s_addr) == end.address && ntohs(static_cast<std::uint16_t>(port)) == end.port;
}

bool isClientsEnd(pid_t process, int descriptor, const proxy::TcpEnd& client, const proxy::TcpEnd& server) {
  socket_fdinfo told{};
  constexpr int kSize = sizeof told;
  if (::proc_pidfdinfo(process, descriptor, PROC_PIDFDSOCKETINFO, &told, kSize) != kSize) return false;
  if (told.psi.soi_kind != SOCKINFO_TCP) return false;
  const tcp_sockinfo& tcp = told.psi.soi_proto.pri_tcp;
  if (tcp.tcpsi_state == TSI_S_CLOSED || tcp.tcpsi_state == TSI_S_LISTEN) return false;
  // A socket of both versions of IP has this one flag once it is connected over IPv4.
  if (tcp.tcpsi_ini.insi_vflag != INI_IPV4) return false;
  return isEnd(tcp.tcpsi_ini.insi_laddr.ina_46, tcp.tcpsi_ini.insi_lport, client) &&
         isEnd(tcp.tcpsi_ini.insi_faddr.ina_46, tcp.tcpsi_ini.insi_fport, server);
}

}  // namespace

std::optional<uid_t> LibprocPeerOwners::ownerOf(const proxy::TcpEnd& client, const proxy::TcpEnd& server) {
  const uid_t self = ::geteuid();
  for (const pid_t process : listProcesses(PROC_UID_ONLY, self)) {
    const auto open = listDescriptors(process);
    const bool holds = std::ranges::any_of(open, [&](const proc_fdinfo& descriptor) {
      return descriptor.proc_fdtype == PROX_FDTYPE_SOCKET && isClientsEnd(process, descriptor.proc_fd, client, server);
    });
    if (holds) return self;
  }
  return std::nullopt;
}

}  // namespace sorvane::platform
