#include "cli/hidden_line.h"

#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>

namespace sorvane::cli {
namespace {

// The signal that ended the typing; a handler has no other way to tell.
std::atomic<int> endedBy{0};

/// Raw mode for as long as this lives. What ended the typing is raised once the terminal is as it was.
class RawMode {
 public:
  explicit RawMode(int terminal) : terminal_(terminal) {
    endedBy = 0;
    if (::tcgetattr(terminal_, &before_) != 0) return;
    struct sigaction action {};
    action.sa_handler = [](int number) { endedBy = number; };  // without SA_RESTART: a read ends
    for (std::size_t i = 0; i < kSignals.size(); ++i) ::sigaction(kSignals[i], &action, &actions_[i]);
    termios raw = before_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON | ISIG | IEXTEN);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    isRaw_ = ::tcsetattr(terminal_, TCSAFLUSH, &raw) == 0;
    hasActions_ = true;
  }
  ~RawMode() {
    if (isRaw_) ::tcsetattr(terminal_, TCSAFLUSH, &before_);
    for (std::size_t i = 0; hasActions_ && i < kSignals.size(); ++i) ::sigaction(kSignals[i], &actions_[i], nullptr);
    if (endedBy != 0) ::raise(endedBy);
  }
  RawMode(const RawMode&) = delete;
  RawMode& operator=(const RawMode&) = delete;
  bool isRaw() const { return isRaw_; }

 private:
  static constexpr std::array kSignals{SIGINT, SIGTERM, SIGQUIT, SIGHUP, SIGTSTP};
  const int terminal_;
  termios before_{};
  std::array<struct sigaction, kSignals.size()> actions_{};
  bool isRaw_ = false;
  bool hasActions_ = false;
};

/// Takes the last character off, not only its last byte.
void dropCharacter(base::SecretText& line) {
  std::size_t size = line.size();
  while (size > 0 && (static_cast<unsigned char>(line.view()[size - 1]) & 0xC0U) == 0x80U) --size;
  line.truncate(size > 0 ? size - 1 : 0);
}

enum class Typed { more, enter, ended };

Typed type(base::SecretText& line, char key) {
  constexpr char kCtrlC = 0x03, kCtrlD = 0x04, kBackspace = 0x08, kCtrlU = 0x15, kCtrlZ = 0x1A, kCtrlBackslash = 0x1C,
                 kDelete = 0x7F;
  switch (key) {
    case '\r':
    case '\n':
      return Typed::enter;
    case kCtrlC:
      endedBy = SIGINT;
      return Typed::ended;
    case kCtrlBackslash:
      endedBy = SIGQUIT;
      return Typed::ended;
    case kCtrlD:
      return line.empty() ? Typed::ended : Typed::enter;
    case kBackspace:
    case kDelete:
      dropCharacter(line);
      return Typed::more;
    case kCtrlU:
      line.truncate(0);
      return Typed::more;
    case kCtrlZ:
      return Typed::more;
    default:
      if (line.size() < kMostTyped) line.push_back(key);
      return Typed::more;
  }
}

}  // namespace

base::SecretText hiddenLine(int terminal, std::string_view words) {
  base::SecretText line;
  // Before the words are shown: who sees them may begin to type at once.
  const RawMode raw(terminal);
  // Nothing is read that would be shown.
  if (!raw.isRaw()) return line;
  [[maybe_unused]] const auto shown = ::write(terminal, words.data(), words.size());
  auto typed = Typed::more;
  while (typed == Typed::more) {
    char key = 0;
    const ssize_t got = ::read(terminal, &key, 1);
    if (got < 0 && errno == EINTR && endedBy == 0) continue;
    typed = got == 1 ? type(line, key) : Typed::ended;
    base::wipe(&key, 1);
  }
  if (typed == Typed::ended) line.truncate(0);
  [[maybe_unused]] const auto ended = ::write(terminal, "\n", 1);
  return line;
}

}  // namespace sorvane::cli
