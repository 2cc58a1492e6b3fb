#include "cli/typed_value.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "base/descriptor.h"
#include "cli/hidden_line.h"

namespace sorvane::cli {
namespace {

base::SecretText pipedIn() {
  base::SecretText text;
  std::array<char, 4096> piece;
  while (text.size() < kMostTyped) {
    const ssize_t got = ::read(STDIN_FILENO, piece.data(), piece.size());
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    text.append({piece.data(), static_cast<std::size_t>(got)});
  }
  base::wipe(piece.data(), piece.size());
  return text;
}

Failure nothingGiven() {
  return {kUsage, "no_value", "No value was given, so nothing was saved. Type it when asked, or pipe it in."};
}

}  // namespace

base::SecretText readValue(const Options& options, const std::string& what, bool keepNewline, Typing typing) {
  if (::isatty(STDIN_FILENO) == 0) {
    base::SecretText value = pipedIn();
    if (!keepNewline && value.view().ends_with('\n')) value.truncate(value.size() - 1);
    if (value.empty()) throw nothingGiven();
    return value;
  }
  if (options.noInput)
    throw Failure(kUsage, "no_input", "A value has to be typed, and --no-input forbids it. Pipe it in.");
  const base::Descriptor terminal(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
  if (!terminal) throw nothingGiven();
  base::SecretText value = hiddenLine(terminal.get(), what + " (not shown): ");
  if (value.empty()) throw nothingGiven();
  if (typing == Typing::twice && !hiddenLine(terminal.get(), "Once more: ").sameAs(value.view())) {
    throw Failure(kUsage, "values_differ", "The two values differ, so nothing was saved. Try again.");
  }
  return value;
}

}  // namespace sorvane::cli
