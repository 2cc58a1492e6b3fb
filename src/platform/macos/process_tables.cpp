#include "platform/macos/process_tables.h"

namespace sorvane::platform {
namespace {

/// `ask` as the calls of libproc: the bytes that there are without a buffer, those filled in with one, 0 or less for
/// none.
template <typename Item, typename Ask>
std::vector<Item> wholeTable(Ask ask) {
  constexpr int kMostTries = 8;
  for (int tries = 0; tries < kMostTries; ++tries) {
    const int size = ask(nullptr, 0);
    if (size <= 0) return {};
    // One more than there are: a table without a free place may have been cut off.
    std::vector<Item> items(static_cast<std::size_t>(size) / sizeof(Item) + 1);
    const int room = static_cast<int>(items.size() * sizeof(Item));
    const int filled = ask(items.data(), room);
    if (filled <= 0) return {};
    if (filled >= room) continue;
    items.resize(static_cast<std::size_t>(filled) / sizeof(Item));
    return items;
  }
  return {};
}

}  // namespace

std::vector<pid_t> listProcesses(std::uint32_t question, std::uint32_t argument) {
  auto processes =
      wholeTable<pid_t>([&](void* buffer, int size) { return ::proc_listpids(question, argument, buffer, size); });
  // The kernel itself has the number 0, and a place that was left free looks like it.
  std::erase(processes, 0);
  return processes;
}

std::vector<proc_fdinfo> listDescriptors(pid_t process) {
  return wholeTable<proc_fdinfo>(
      [&](void* buffer, int size) { return ::proc_pidinfo(process, PROC_PIDLISTFDS, 0, buffer, size); });
}

}  // namespace sorvane::platform
