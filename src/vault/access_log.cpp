#include "vault/access_log.h"

#include "vault/record_codec.h"
#include "vault/sealed_files.h"

namespace sorvane::vault {
namespace {

namespace fs = std::filesystem;

/// Calls `take` with each line, without its line feed, and whether it had one.
template <typename Take>
void eachLine(std::string_view text, const Take& take) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    const bool whole = end != std::string_view::npos;
    take(text.substr(0, whole ? end : text.size()), whole);
    text.remove_prefix(whole ? end + 1 : text.size());
  }
}

}  // namespace

void appendToLog(base::Files& files, const fs::path& folder, std::span<const AccessEvent> events) {
  if (events.empty()) return;
  base::SecretText lines;
  for (const AccessEvent& event : events) appendEventLine(lines, event);
  files.append(folder / kAccessLogFile, lines.bytes());
}

void settleLogTail(base::Files& files, const fs::path& folder) {
  const fs::path path = folder / kAccessLogFile;
  const auto contents = files.read(path);
  if (!contents || contents->bytes.empty() || contents->bytes.back() == '\n') return;
  const std::string_view text = base::textOf(contents->bytes);
  const std::size_t lineFeed = text.rfind('\n');
  const std::size_t start = lineFeed == std::string_view::npos ? 0 : lineFeed + 1;
  if (decodeEvent(text.substr(start))) {
    files.append(path, base::bytesOf("\n"));
  } else {
    files.writeAtomically(path, base::bytesOf(text.substr(0, start)));
  }
}

std::optional<std::vector<AccessEvent>> readLog(const base::Files& files, const fs::path& folder) {
  std::vector<AccessEvent> events;
  if (const auto old = files.read(folder / kOldAccessLogFile)) {
    auto decoded = decodeEvents(base::textOf(old->bytes));
    if (!decoded) return std::nullopt;
    events = *std::move(decoded);
  }
  const auto contents = files.read(folder / kAccessLogFile);
  if (!contents) return events;
  bool readable = true;
  eachLine(base::textOf(contents->bytes), [&](std::string_view line, bool) {
    auto event = readable ? decodeEvent(line) : std::nullopt;
    readable = event.has_value();
    if (event) events.push_back(*std::move(event));
  });
  if (!readable) return std::nullopt;
  return events;
}

LogRepair repairLog(base::Files& files, const fs::path& folder, std::string_view stamp) {
  LogRepair repair;
  const auto aside = [&](std::string_view name) {
    return folder / std::string("access_log.unreadable-").append(stamp).append(name.substr(name.rfind('.')));
  };
  if (const auto old = files.read(folder / kOldAccessLogFile)) {
    if (const auto events = decodeEvents(base::textOf(old->bytes))) {
      repair.kept += static_cast<std::int64_t>(events->size());
    } else {
      repair.movedTo = aside(kOldAccessLogFile);
      files.rename(folder / kOldAccessLogFile, repair.movedTo);
      ++repair.moved;
    }
  }
  const auto contents = files.read(folder / kAccessLogFile);
  if (!contents) return repair;
  std::string kept, unreadable;
  std::int64_t moved = 0;
  eachLine(base::textOf(contents->bytes), [&](std::string_view line, bool) {
    const bool readable = decodeEvent(line).has_value();
    ++(readable ? repair.kept : moved);
    (readable ? kept : unreadable).append(line).push_back('\n');
  });
  if (moved == 0) return repair;
  repair.moved += moved;
  repair.movedTo = aside(kAccessLogFile);
  files.writeAtomically(repair.movedTo, base::bytesOf(unreadable));
  files.writeAtomically(folder / kAccessLogFile, base::bytesOf(kept));
  return repair;
}

}  // namespace sorvane::vault
