#include "base/system.h"

namespace sorvane::base {

std::vector<ProcessInfo> processChain(pid_t pid) {
  constexpr std::size_t kMost = 16;
  std::vector<ProcessInfo> chain;
  while (pid > 1 && chain.size() < kMost) {
    const auto info = processInfo(pid);
    if (!info) break;
    chain.push_back(*info);
    pid = info->parent;
  }
  return chain;
}

}  // namespace sorvane::base
