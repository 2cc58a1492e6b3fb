#include "platform/linux/service_notice.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "base/descriptor.h"

namespace sorvane::platform {

void tellServiceManager(std::string_view state) {
  const char* const variable = std::getenv("NOTIFY_SOCKET");
  const std::string_view name = variable == nullptr ? std::string_view() : std::string_view(variable);
  sockaddr_un address{};
  if (name.size() < 2 || (name[0] != '/' && name[0] != '@') || name.size() >= sizeof address.sun_path) return;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, name.data(), name.size());
  if (name[0] == '@') address.sun_path[0] = '\0';  // a name of the abstract name space
  const base::Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket) return;
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  [[maybe_unused]] const auto sent = ::sendto(socket.get(), state.data(), state.size(), MSG_NOSIGNAL,
                                              reinterpret_cast<const sockaddr*>(&address), length);
}

}  // namespace sorvane::platform
