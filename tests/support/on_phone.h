#pragma once

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <string>
#include <vector>

namespace sorvane::test {

inline std::string variable(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? std::string() : value;
}

/// One program on the other host, whose lines are read as they come.
class OnPhone {
 public:
  explicit OnPhone(const std::string& command) {
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0) throw std::runtime_error("no pipe");
    const std::string line = "DBUS_SYSTEM_BUS_ADDRESS='" + variable("PHONE_BUS") + "' exec ip netns exec " +
                             variable("PHONE_HOST") + " " + command;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(ends[1], STDOUT_FILENO);
      ::dup2(ends[1], STDERR_FILENO);
      ::execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
      ::_exit(127);
    }
    ::close(ends[1]);
    lines_ = ::fdopen(ends[0], "r");
  }
  ~OnPhone() {
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
    ::fclose(lines_);
  }
  OnPhone(const OnPhone&) = delete;
  OnPhone& operator=(const OnPhone&) = delete;

  /// A line, come already or to come, that begins with `begin` and holds `holds`, and is taken; empty when the program
  /// ends first.
  std::string waitFor(const std::string& begin, const std::string& holds) {
    for (std::size_t i = 0;; ++i) {
      std::array<char, 1024> line;
      if (i == seen_.size()) {
        if (::fgets(line.data(), static_cast<int>(line.size()), lines_) == nullptr) return {};
        seen_.emplace_back(line.data());
      }
      if (!seen_[i].starts_with(begin) || seen_[i].find(holds) == std::string::npos) continue;
      const std::string found = seen_[i];
      seen_.erase(seen_.begin() + static_cast<std::ptrdiff_t>(i));
      return found;
    }
  }

 private:
  pid_t pid_ = 0;
  FILE* lines_ = nullptr;
  std::vector<std::string> seen_;
};

}  // namespace sorvane::test
