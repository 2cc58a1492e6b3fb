#include "platform/linux/agent_helper.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>

#include "base/descriptor.h"

namespace sorvane::platform {
namespace {

using base::Descriptor;

/// Longer than any line of the program, and more of them than any modules have.
constexpr std::size_t kMaxLine = 8192;
constexpr int kMaxLines = 64;

/// One run of the program. The destructor ends it.
class Helper {
 public:
  explicit Helper(const AgentHelperTask& task) {
    std::array<int, 2> in{-1, -1}, out{-1, -1};
    if (::pipe2(in.data(), O_CLOEXEC) != 0) return;
    Descriptor itsInput(in[0]);
    toIt_.reset(in[1]);
    if (::pipe2(out.data(), O_CLOEXEC) != 0) return;
    fromIt_.reset(out[0]);
    start(task, itsInput, Descriptor(out[1]));
  }
  ~Helper() {
    toIt_.reset();
    fromIt_.reset();
    if (pid_ <= 0) return;
    if (!hasEnded_) ::kill(pid_, SIGTERM);
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;

  bool isRunning() const { return pid_ > 0; }
  /// It has said its last word, and is not stopped on its way out.
  void hasEnded() { hasEnded_ = true; }

  bool tell(std::string_view line) {
    while (!line.empty()) {
      const ssize_t sent = ::write(toIt_.get(), line.data(), line.size());
      if (sent < 0 && errno == EINTR) continue;
      if (sent <= 0) return false;
      line.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
  }

  /// Its next line without the end of it; nullopt: none comes any more.
  std::optional<std::string> hear(int takenBack) {
    for (std::string line; line.size() < kMaxLine;) {
      std::array<pollfd, 2> watched{pollfd{fromIt_.get(), POLLIN, 0}, pollfd{takenBack, POLLIN, 0}};
      const int ready = ::poll(watched.data(), watched.size(), -1);
      if (ready < 0 && errno == EINTR) continue;
      if (ready < 0 || watched[1].revents != 0) return std::nullopt;
      char c = 0;
      if (::read(fromIt_.get(), &c, 1) != 1) return std::nullopt;
      if (c == '\n') return line;
      line += c;
    }
    return std::nullopt;
  }

 private:
  void start(const AgentHelperTask& task, const Descriptor& input, const Descriptor& output) {
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    ::posix_spawn_file_actions_init(&files);
    ::posix_spawnattr_init(&attributes);
    ::posix_spawn_file_actions_adddup2(&files, input.get(), STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&files, output.get(), STDOUT_FILENO);
    ::posix_spawn_file_actions_addopen(&files, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    sigset_t none, usual;
    sigemptyset(&none);
    sigemptyset(&usual);
    for (const int signal : {SIGTERM, SIGPIPE, SIGINT, SIGHUP}) sigaddset(&usual, signal);
    ::posix_spawnattr_setsigmask(&attributes, &none);
    ::posix_spawnattr_setsigdefault(&attributes, &usual);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    std::string program = task.helper, user = task.user;
    std::array<char*, 3> arguments{program.data(), user.data(), nullptr};
    std::array<char*, 1> environment{nullptr};
    if (::posix_spawn(&pid_, program.c_str(), &files, &attributes, arguments.data(), environment.data()) != 0)
      pid_ = -1;
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&files);
  }

  pid_t pid_ = -1;
  bool hasEnded_ = false;
  Descriptor toIt_, fromIt_;
};

/// Whether the conversation goes on.
bool answer(Helper& helper, const PamConversation& conversation, const std::string& prompt, bool echo) {
  auto typed = conversation.ask(prompt, echo);
  if (!typed) return false;
  typed->push_back('\n');
  return helper.tell(typed->view());
}

bool isOctal(char c) {
  return c >= '0' && c <= '7';
}

}  // namespace

std::string agentHelperPath() {
  for (const char* const path : {"/usr/lib/polkit-1/polkit-agent-helper-1", "/usr/libexec/polkit-agent-helper-1",
                                 "/usr/lib/policykit-1/polkit-agent-helper-1"}) {
    if (::access(path, X_OK) == 0) return path;
  }
  return {};
}

std::string accountName(uid_t user) {
  std::ifstream accounts("/etc/passwd");
  const std::string id = std::to_string(user);
  for (std::string line; std::getline(accounts, line);) {
    // NAME:PASSWORD:UID:…
    const std::size_t name = line.find(':'), password = line.find(':', name + 1), end = line.find(':', password + 1);
    if (name == std::string::npos || password == std::string::npos || end == std::string::npos) continue;
    if (line.compare(password + 1, end - password - 1, id) == 0) return line.substr(0, name);
  }
  const char* const said = std::getenv("USER");
  return said == nullptr ? "" : said;
}

std::string unescaped(std::string_view text) {
  constexpr std::string_view kLetters = "bfnrtv", kMeant = "\b\f\n\r\t\v";
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      plain += text[i];
      continue;
    }
    const char next = text[++i];
    if (isOctal(next)) {
      unsigned value = static_cast<unsigned>(next - '0');
      for (int digits = 1; digits < 3 && i + 1 < text.size() && isOctal(text[i + 1]); ++digits) {
        value = value * 8 + static_cast<unsigned>(text[++i] - '0');
      }
      plain += static_cast<char>(value & 0xFFU);
    } else {
      const std::size_t letter = kLetters.find(next);
      plain += letter == std::string_view::npos ? next : kMeant[letter];
    }
  }
  return plain;
}

AgentHelperEnd runAgentHelper(const AgentHelperTask& task, const PamConversation& conversation, int takenBack) {
  Helper helper(task);
  if (!helper.isRunning() || !helper.tell(task.cookie + "\n")) return AgentHelperEnd::notAccepted;
  for (int lines = 0; lines < kMaxLines; ++lines) {
    const auto line = helper.hear(takenBack);
    if (!line) break;
    const std::size_t space = line->find(' ');
    const std::string word = line->substr(0, space);
    const std::string text = space == std::string::npos ? "" : unescaped(std::string_view(*line).substr(space + 1));
    if (word == "PAM_PROMPT_ECHO_OFF" || word == "PAM_PROMPT_ECHO_ON") {
      if (!answer(helper, conversation, text, word == "PAM_PROMPT_ECHO_ON")) break;
    } else if (word == "PAM_ERROR_MSG" || word == "PAM_TEXT_INFO") {
      conversation.show(text);
    } else {
      helper.hasEnded();
      return word == "SUCCESS" ? AgentHelperEnd::granted : AgentHelperEnd::notAccepted;
    }
  }
  return AgentHelperEnd::notAccepted;
}

}  // namespace sorvane::platform
