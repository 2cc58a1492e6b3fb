#include "approver/terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>

namespace sorvane::approver {
namespace {

constexpr std::array kSignals{SIGINT, SIGTERM, SIGHUP};
constexpr std::size_t kUsualWidth = 80;
/// More typed at once than any answer; what is beyond is dropped.
constexpr std::size_t kMostTyped = 4096;

// A handler has no other way to tell.
std::atomic<int> stoppedBy{0};
std::array<int, 2> stopPipe{-1, -1};

void noteStop(int number) {
  const int before = errno;
  stoppedBy = number;
  [[maybe_unused]] const auto written = ::write(stopPipe[1], "", 1);
  errno = before;
}

/// The terminal without echo, for as long as this lives.
class Hidden {
 public:
  explicit Hidden(int terminal) : terminal_(terminal) {
    if (::tcgetattr(terminal_, &before_) != 0) return;
    termios hidden = before_;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    hidden.c_lflag |= static_cast<tcflag_t>(ICANON | ISIG);
    // Suspended here, it would leave the shell without echo.
    hidden.c_cc[VSUSP] = _POSIX_VDISABLE;
    isHidden_ = ::tcsetattr(terminal_, TCSAFLUSH, &hidden) == 0;
  }
  ~Hidden() {
    if (isHidden_) ::tcsetattr(terminal_, TCSAFLUSH, &before_);
  }
  Hidden(const Hidden&) = delete;
  Hidden& operator=(const Hidden&) = delete;
  bool isHidden() const { return isHidden_; }

 private:
  const int terminal_;
  termios before_{};
  bool isHidden_ = false;
};

}  // namespace

StopSignals::StopSignals() {
  if (::pipe(stopPipe.data()) != 0) throw base::Error("This system has no files left to open. Nothing was answered.");
  for (const int end : stopPipe) {
    ::fcntl(end, F_SETFD, FD_CLOEXEC);
    ::fcntl(end, F_SETFL, O_NONBLOCK);
  }
  struct sigaction action {};
  action.sa_handler = noteStop;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int number : kSignals) ::sigaction(number, &action, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
}

StopSignals::~StopSignals() {
  for (const int number : kSignals) ::signal(number, SIG_DFL);
  for (int& end : stopPipe) ::close(std::exchange(end, -1));
}

int StopSignals::descriptor() const {
  return stopPipe[0];
}

void StopSignals::check() const {
  if (stoppedBy != 0) throw Interrupted(stoppedBy);
}

bool waitFor(int descriptor, short events, int milliseconds, const StopSignals& signals) {
  std::array<pollfd, 2> watched{pollfd{descriptor, events, 0}, pollfd{signals.descriptor(), POLLIN, 0}};
  const int ready = ::poll(watched.data(), watched.size(), milliseconds);
  signals.check();
  return ready > 0 && watched[0].revents != 0;
}

NoTerminal::NoTerminal()
    : Error("Nobody can be asked here: there is no terminal. Nothing was answered. Run this in a terminal.") {}

Terminal::Terminal(const StopSignals& signals)
    : signals_(signals), file_(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY)) {
  if (!file_) throw NoTerminal();
}

void Terminal::show(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(file_.get(), text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) break;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

std::optional<base::SecretText> Terminal::hiddenLine(std::string_view prompt) {
  const Hidden hidden(file_.get());
  if (!hidden.isHidden()) throw NoTerminal();
  show(prompt);
  base::SecretText line;
  std::array<char, kMostHidden> piece;
  for (bool more = true; more;) {
    if (!waitFor(file_.get(), POLLIN, -1, signals_)) continue;
    const ssize_t got = ::read(file_.get(), piece.data(), piece.size());
    if (got < 0 && errno == EINTR) continue;
    const std::string_view text(piece.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
    more = !text.empty() && text.back() != '\n';
    line.append(text.substr(0, text.size() - (text.ends_with('\n') ? 1 : 0)));
    base::wipe(piece.data(), piece.size());
    if (text.empty() && line.empty()) {
      show("\n");
      return std::nullopt;
    }
  }
  show("\n");
  if (line.size() > kMostHidden) return std::nullopt;
  return line;
}

std::optional<std::string> Terminal::line(std::string_view prompt) {
  show(prompt);
  for (;;) {
    if (auto line = typedLine()) return line;
    if (isEnded_) return std::nullopt;
    waitFor(file_.get(), POLLIN, -1, signals_);
  }
}

void Terminal::readMore() {
  pollfd watched{file_.get(), POLLIN, 0};
  if (::poll(&watched, 1, 0) <= 0) return;
  std::array<char, kMostTyped> piece;
  const ssize_t got = ::read(file_.get(), piece.data(), piece.size());
  if (got < 0 && (errno == EINTR || errno == EAGAIN)) return;
  if (got <= 0)
    isEnded_ = true;
  else if (typed_.size() < kMostTyped)
    typed_.append(piece.data(), static_cast<std::size_t>(got));
}

std::optional<std::string> Terminal::typedLine() {
  if (typed_.find('\n') == std::string::npos) readMore();
  const std::size_t end = typed_.find('\n');
  if (end == std::string::npos) return std::nullopt;
  std::string line = typed_.substr(0, end);
  typed_.erase(0, end + 1);
  return line;
}

void Terminal::discardTyped() {
  ::tcflush(file_.get(), TCIFLUSH);
  typed_.clear();
}

std::size_t Terminal::width() const {
  winsize size{};
  return ::ioctl(file_.get(), TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kUsualWidth;
}

}  // namespace sorvane::approver
