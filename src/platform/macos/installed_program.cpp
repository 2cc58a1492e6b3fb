#include "platform/macos/installed_program.h"

#include <libproc.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace sorvane::platform {

bool isInstalledWith(const std::filesystem::path& own, const std::filesystem::path& peer) {
  constexpr std::array kPlaces{"sorvaned", "sorvaned.app/Contents/MacOS/sorvaned",
                               "../Applications/sorvaned.app/Contents/MacOS/sorvaned"};
  if (!own.is_absolute() || !peer.is_absolute()) return false;
  return std::ranges::any_of(kPlaces,
                             [&](const char* place) { return (own.parent_path() / place).lexically_normal() == peer; });
}

std::filesystem::path programOf(pid_t process) {
  std::array<char, PROC_PIDPATHINFO_MAXSIZE> path{};
  const int length = ::proc_pidpath(process, path.data(), static_cast<std::uint32_t>(path.size()));
  return length > 0 ? std::filesystem::path(std::string(path.data(), static_cast<std::size_t>(length)))
                    : std::filesystem::path();
}

}  // namespace sorvane::platform
