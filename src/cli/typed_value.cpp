#include "cli/typed_value.h"

#include <fcntl.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>

#include "base/descriptor.h"

namespace sorvane::cli {
namespace {

/// More than any store takes, so that a value that is too long is refused by the one who knows the limit.
constexpr std::size_t kMostRead = 64 * 1024;

// The signal that ended the typing; a handler has no other way to tell.
std::atomic<int> endedBy{0};

/// Echo is off for as long as this lives, and comes back before a signal ends the program.
class NoEcho {
 public:
  explicit NoEcho(int terminal) : terminal_(terminal) {
    if (::tcgetattr(terminal_, &before_) != 0) return;
    struct sigaction action {};
    action.sa_handler = [](int number) { endedBy = number; };  // without SA_RESTART: a read ends
    for (std::size_t i = 0; i < kSignals.size(); ++i) ::sigaction(kSignals[i], &action, &actions_[i]);
    termios quiet = before_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    changed_ = ::tcsetattr(terminal_, TCSAFLUSH, &quiet) == 0;
  }
  ~NoEcho() {
    if (changed_) ::tcsetattr(terminal_, TCSAFLUSH, &before_);
    for (std::size_t i = 0; i < kSignals.size(); ++i) ::sigaction(kSignals[i], &actions_[i], nullptr);
    if (endedBy != 0) ::raise(endedBy);
  }
  NoEcho(const NoEcho&) = delete;
  NoEcho& operator=(const NoEcho&) = delete;

 private:
  static constexpr std::array kSignals{SIGINT, SIGTERM, SIGQUIT, SIGHUP, SIGTSTP};
  const int terminal_;
  termios before_{};
  std::array<struct sigaction, kSignals.size()> actions_{};
  bool changed_ = false;
};

base::SecretText readFrom(int fd, bool oneLine) {
  base::SecretText text;
  std::array<char, 4096> piece;
  while (text.size() < kMostRead) {
    const ssize_t got = ::read(fd, piece.data(), oneLine ? 1 : piece.size());
    if (got < 0 && errno == EINTR && endedBy == 0) continue;
    if (got <= 0) break;
    if (oneLine && piece[0] == '\n') break;
    text.append({piece.data(), static_cast<std::size_t>(got)});
  }
  base::wipe(piece.data(), piece.size());
  return text;
}

base::SecretText ask(int terminal, const std::string& words) {
  // Before the words are shown: who sees them may begin to type at once.
  const NoEcho quiet(terminal);
  [[maybe_unused]] const auto shown = ::write(terminal, words.data(), words.size());
  return readFrom(terminal, true);
}

Failure nothingGiven() {
  return {kUsage, "no_value", "No value was given, so nothing was saved. Type it when asked, or pipe it in."};
}

}  // namespace

base::SecretText readValue(const Options& options, const std::string& what, bool keepNewline) {
  if (::isatty(STDIN_FILENO) == 0) {
    base::SecretText value = readFrom(STDIN_FILENO, false);
    if (!keepNewline && value.view().ends_with('\n')) value.truncate(value.size() - 1);
    if (value.empty()) throw nothingGiven();
    return value;
  }
  if (options.noInput)
    throw Failure(kUsage, "no_input", "A value has to be typed, and --no-input forbids it. Pipe it in.");
  const base::Descriptor terminal(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
  if (!terminal) throw nothingGiven();
  base::SecretText value = ask(terminal.get(), what + " (not shown): ");
  if (value.empty()) throw nothingGiven();
  if (!ask(terminal.get(), "Once more: ").sameAs(value.view())) {
    throw Failure(kUsage, "values_differ", "The two values differ, so nothing was saved. Try again.");
  }
  return value;
}

}  // namespace sorvane::cli
