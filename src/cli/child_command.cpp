#include "cli/child_command.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/environment.h"
#include "cli/session.h"

namespace sorvane::cli {
namespace {

bool isNamed(std::string_view entry, const EnvLine& variable) {
  return entry.size() > variable.name.size() && entry.starts_with(variable.name) && entry[variable.name.size()] == '=';
}

}  // namespace

ChildEnvironment::ChildEnvironment(const std::vector<EnvLine>& variables) {
  for (char** own = environ; *own != nullptr; ++own) {
    const std::string_view entry(*own);
    if (std::any_of(variables.begin(), variables.end(), [&](const EnvLine& v) { return isNamed(entry, v); })) continue;
    block_.push_back(*own);
  }
  entries_.reserve(variables.size());
  for (const EnvLine& variable : variables) {
    base::SecretText& entry = entries_.emplace_back();
    entry.reserve(variable.name.size() + variable.value.size() + 2);
    entry.append(variable.name);
    entry.push_back('=');
    entry.append(variable.value.view());
    entry.push_back('\0');
    block_.push_back(entry.data());
  }
  block_.push_back(nullptr);
}

void ChildEnvironment::forget() {
  block_.assign(1, nullptr);
  entries_.clear();
}

int become(const ChildCommand& command) {
  if (!command.directory.empty() && ::chdir(command.directory.c_str()) != 0) return errno;
  std::vector<char*> words;
  for (const std::string& word : command.words) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  // So that the look-up takes the PATH that the command will see.
  environ = const_cast<char**>(command.environment.block());
  ::execvp(words[0], words.data());
  return errno;
}

void failToStart(const ChildCommand& command, int error) {
  const std::string named = "The command '" + command.words.front() + "'";
  if (error == ENOENT || error == ENOTDIR) {
    throw Failure(127, "command_not_found",
                  named +
                      " was not found, so nothing was run. Check its name, the PATH that it is looked up in, and "
                      "the folder.");
  }
  throw Failure(126, "command_not_runnable",
                named + " cannot be run (" + std::strerror(error) +
                    "), so nothing was run. Check that it is a program "
                    "that you may run.");
}

int exitCodeOf(int waitStatus) {
  return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}

}  // namespace sorvane::cli
