#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <map>
#include <string>

#include "base/descriptor.h"
#include "unlock/owner_presence.h"

namespace sorvane::test {

inline std::string wordOf(const unlock::OwnerPresence::Answer& answer) {
  if (std::holds_alternative<unlock::OwnerPresence::Granted>(answer)) return "granted";
  if (std::holds_alternative<unlock::OwnerPresence::Cancelled>(answer)) return "cancelled";
  const auto& failed = std::get<unlock::OwnerPresence::Failed>(answer);
  return "failed " + std::to_string(failed.code) + (failed.explanation.empty() ? "" : ": " + failed.explanation);
}

/// An environment variable; empty when it is not set.
inline std::string setting(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

/// Serves an Asker: one command a line on standard input, one line of answer each. `hear` is told each first, and is
/// the only one to know those that are none of these.
template <typename Hear>
void serveAsker(unlock::OwnerPresence& check, const Hear& hear) {
  for (std::string command; std::getline(std::cin, command);) {
    hear(command);
    if (command == "unavailable") {
      std::cout << check.unavailable().value_or("available") << std::endl;
    } else if (command == "withdraw") {
      check.withdraw();
    } else if (command.starts_with("ask")) {
      check.ask(unlock::OwnerPresence::Check::presence, "Unlock it",
                [](const unlock::OwnerPresence::Answer& answer) { std::cout << wordOf(answer) << std::endl; });
    }
  }
}

/// The test program once more, as another user's process: it is told what to ask and says what came of it.
class Asker {
 public:
  using Settings = std::map<std::string, std::string>;

  /// Settings are environment variables of the process.
  explicit Asker(const Settings& settings = {}) {
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) std::abort();
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(in[0], STDIN_FILENO);
      ::dup2(out[1], STDOUT_FILENO);
      for (const auto& [name, value] : settings) ::setenv(name.c_str(), value.c_str(), 1);
      ::setenv(kIsAsker, "1", 1);
      ::execl("/proc/self/exe", "asker", nullptr);
      ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    to_.reset(in[1]);
    from_.reset(out[0]);
  }
  ~Asker() {
    to_.reset();
    ::waitpid(pid_, nullptr, 0);
  }
  Asker(const Asker&) = delete;
  Asker& operator=(const Asker&) = delete;

  /// Whether this process is one.
  static bool isThis() { return std::getenv(kIsAsker) != nullptr; }

  pid_t pid() const { return pid_; }
  void tell(const std::string& command) {
    const std::string line = command + "\n";
    ASSERT_EQ(::write(to_.get(), line.data(), line.size()), static_cast<ssize_t>(line.size()));
  }
  std::string hear() {
    std::string line;
    for (char c = 0; ::read(from_.get(), &c, 1) == 1 && c != '\n';) line += c;
    return line;
  }
  std::string unavailable() {
    tell("unavailable");
    return hear();
  }

 private:
  static constexpr const char* kIsAsker = "SORVANE_TEST_ASKER";
  pid_t pid_ = -1;
  base::Descriptor to_, from_;
};

}  // namespace sorvane::test
