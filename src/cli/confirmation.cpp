#include "cli/confirmation.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "base/descriptor.h"
#include "base/unicode.h"
#include "cli/interrupt.h"

namespace sorvane::cli {
namespace {

constexpr int kLookForInterruptMilliseconds = 100;

}  // namespace

bool canAsk(const Options& options) {
  return !options.noInput && ::isatty(STDIN_FILENO) != 0 && ::isatty(STDERR_FILENO) != 0;
}

std::optional<std::string> typedLine(const std::string& question) {
  const base::Descriptor terminal(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
  if (!terminal) return std::nullopt;
  const std::string shown = base::escapedForDisplay(question);
  [[maybe_unused]] const auto written = ::write(terminal.get(), shown.data(), shown.size());
  std::string line;
  for (char c;;) {
    // Looked at again and again: a Ctrl-C may come before the wait begins.
    pollfd typed{terminal.get(), POLLIN, 0};
    if (wasInterrupted()) return std::nullopt;
    if (::poll(&typed, 1, kLookForInterruptMilliseconds) <= 0) continue;
    const ssize_t got = ::read(terminal.get(), &c, 1);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return std::nullopt;
    if (c == '\n') return line;
    line += c;
  }
}

bool confirmed(const std::string& question) {
  const auto line = typedLine(question + " [y/N] ");
  const std::string word(base::trimmed(line.value_or("")));
  return word == "y" || word == "Y" || word == "yes";
}

}  // namespace sorvane::cli
