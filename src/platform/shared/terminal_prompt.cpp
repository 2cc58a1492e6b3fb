#include "platform/shared/terminal_prompt.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>

#include <algorithm>
#include <cerrno>

#include "base/descriptor.h"

namespace sorvane::platform {
namespace {

using base::Descriptor;
using base::SecretText;
using std::chrono::milliseconds;

Descriptor opened(const std::filesystem::path& terminal) {
  Descriptor file(::open(terminal.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
  return file && ::isatty(file.get()) == 1 ? std::move(file) : Descriptor();
}

void writeAll(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(file, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

/// The terminal in raw mode for a scope.
class RawMode {
 public:
  explicit RawMode(int file) : file_(file) {
    isRaw_ = ::tcgetattr(file, &before_) == 0;
    termios raw = before_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON | ISIG | IEXTEN);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    isRaw_ = isRaw_ && ::tcsetattr(file, TCSAFLUSH, &raw) == 0;
  }
  ~RawMode() {
    if (isRaw_) ::tcsetattr(file_, TCSAFLUSH, &before_);
  }
  RawMode(const RawMode&) = delete;
  RawMode& operator=(const RawMode&) = delete;
  bool isRaw() const { return isRaw_; }

 private:
  const int file_;
  termios before_{};
  bool isRaw_ = false;
};

/// Takes the last character off, not only its last byte.
void dropCharacter(SecretText& line) {
  std::size_t size = line.size();
  while (size > 0 && (static_cast<unsigned char>(line.view()[size - 1]) & 0xC0U) == 0x80U) --size;
  line.truncate(size > 0 ? size - 1 : 0);
}

enum class Typed { more, enter, givenUp };

Typed type(SecretText& line, char key) {
  constexpr char kCtrlC = 0x03, kCtrlD = 0x04, kBackspace = 0x08, kCtrlU = 0x15, kDelete = 0x7F;
  switch (key) {
    case '\r':
    case '\n':
      return Typed::enter;
    case kCtrlC:
    case kCtrlD:
      return Typed::givenUp;
    case kBackspace:
    case kDelete:
      dropCharacter(line);
      return Typed::more;
    case kCtrlU:
      line.truncate(0);
      return Typed::more;
    default:
      if (line.size() < TerminalPrompt::kMaxBytes) line.push_back(key);
      return Typed::more;
  }
}

/// Whether there is something to read before the deadline.
bool waits(int terminal, TerminalPrompt::Deadline deadline, int withdrawn) {
  while (true) {
    const auto rest = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    if (rest <= 0) return false;
    pollfd watched[] = {{terminal, POLLIN, 0}, {withdrawn, POLLIN, 0}};
    const int ready = ::poll(watched, 2, static_cast<int>(std::min<std::int64_t>(rest, 3'600'000)));
    if (ready < 0 && errno != EINTR) return false;
    if (ready <= 0) continue;
    return watched[1].revents == 0 && (watched[0].revents & POLLIN) != 0;
  }
}

}  // namespace

bool TerminalPrompt::isThere() const {
  return static_cast<bool>(opened(terminal_));
}

void TerminalPrompt::show(std::string_view text) const {
  if (const Descriptor file = opened(terminal_)) writeAll(file.get(), text);
}

std::optional<SecretText> TerminalPrompt::read(std::string_view prompt, Echo echo, Deadline deadline,
                                               int withdrawn) const {
  const Descriptor file = opened(terminal_);
  if (!file) return std::nullopt;
  const RawMode raw(file.get());
  // Nothing is read that would be shown.
  if (!raw.isRaw()) return std::nullopt;
  writeAll(file.get(), prompt);
  SecretText line;
  auto typed = Typed::more;
  while (typed == Typed::more && waits(file.get(), deadline, withdrawn)) {
    char key = 0;
    const ssize_t got = ::read(file.get(), &key, 1);
    if (got < 0 && errno == EINTR) continue;
    if (got != 1) break;
    typed = type(line, key);
    base::wipe(&key, 1);
  }
  if (echo == Echo::yes && typed == Typed::enter) writeAll(file.get(), line.view());
  writeAll(file.get(), "\n");
  if (typed != Typed::enter) return std::nullopt;
  return line;
}

}  // namespace sorvane::platform
