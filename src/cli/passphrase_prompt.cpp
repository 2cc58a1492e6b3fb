#include "cli/passphrase_prompt.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/descriptor.h"
#include "base/environment.h"
#include "base/unicode.h"
#include "cli/hidden_line.h"

namespace sorvane::cli {
namespace {

base::Descriptor openTerminal(const Options& options) {
  if (options.noInput) return {};
  return base::Descriptor(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
}

Failure nothingGiven() {
  return {kUsage, "no_passphrase", "No passphrase was given, so nothing was changed."};
}

Failure askpassFailed(const std::string& program, const std::string& what) {
  return {kUsage, "askpass_failed",
          "The program '" + program + "' in " + kAskpassVariable + " " + what + ", so nothing was changed."};
}

/// The actions of a child whose standard output is `output` and whose standard input is empty.
class ChildFiles {
 public:
  explicit ChildFiles(int output) {
    ::posix_spawn_file_actions_init(&actions_);
    ::posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO);
  }
  ~ChildFiles() { ::posix_spawn_file_actions_destroy(&actions_); }
  ChildFiles(const ChildFiles&) = delete;
  ChildFiles& operator=(const ChildFiles&) = delete;
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

/// Everything up to the end; what stands behind the first line, or is too much, is passed over and wiped.
base::SecretText firstLine(int output) {
  base::SecretText line;
  std::array<char, 4096> piece;
  bool ended = false;
  for (;;) {
    const ssize_t got = ::read(output, piece.data(), piece.size());
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    const std::string_view text(piece.data(), static_cast<std::size_t>(got));
    const std::size_t end = text.find_first_of("\r\n");
    if (!ended && line.size() < kMostTyped) line.append(text.substr(0, end));
    ended = ended || end != std::string_view::npos;
  }
  base::wipe(piece.data(), piece.size());
  return line;
}

base::SecretText askProgram(const std::string& program, const std::string& prompt) {
  if (program.find('/') != std::string::npos && program.front() != '/') {
    throw askpassFailed(program, "has to be an absolute path or a name in PATH");
  }
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) throw askpassFailed(program, "could not be started");
  const base::Descriptor output(ends[0]);
  base::Descriptor input(ends[1]);
  for (const int end : ends) ::fcntl(end, F_SETFD, FD_CLOEXEC);
  const ChildFiles files(input.get());
  const std::array<char*, 3> words{const_cast<char*>(program.c_str()), const_cast<char*>(prompt.c_str()), nullptr};
  pid_t child = 0;
  const int error = ::posix_spawnp(&child, program.c_str(), files.get(), nullptr, words.data(), environ);
  if (error != 0) throw askpassFailed(program, std::string("could not be started (") + std::strerror(error) + ")");
  input.reset();
  base::SecretText line = firstLine(output.get());
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw askpassFailed(program, "gave no passphrase");
  return line;
}

}  // namespace

bool isTypedHere(const Options& options) {
  return static_cast<bool>(openTerminal(options));
}

base::SecretText readPassphrase(const Options& options, const std::string& what) {
  base::SecretText text;
  if (const base::Descriptor terminal = openTerminal(options)) {
    text = hiddenLine(terminal.get(), what + " (not shown): ");
  } else {
    const char* const program = std::getenv(kAskpassVariable);
    if (program == nullptr || *program == '\0') {
      throw Failure(kUsage, options.noInput ? "no_input" : "no_terminal",
                    std::string("A passphrase has to be typed, and nobody can be asked here. Nothing was changed. Run "
                                "this in a terminal, or name a program that asks in ") +
                        kAskpassVariable + ".");
    }
    text = askProgram(program, what + ": ");
  }
  if (text.empty()) throw nothingGiven();
  if (text.size() > kMostPassphraseBytes) {
    throw Failure(kUsage, "too_long",
                  "A passphrase has at most " + std::to_string(kMostPassphraseBytes) +
                      " bytes, and this one is longer, so nothing was changed. Give a shorter one.");
  }
  if (!base::isUtf8(text.view()) || text.view().find('\0') != std::string_view::npos) {
    throw Failure(kUsage, "not_text", "What was given cannot be read as text, so nothing was changed. Try again.");
  }
  return text;
}

NewPassphrase readNewPassphrase(const Options& options) {
  base::SecretText text = readPassphrase(options, "New passphrase for sorvane");
  return {std::move(text), readPassphrase(options, "The new passphrase once more")};
}

}  // namespace sorvane::cli
