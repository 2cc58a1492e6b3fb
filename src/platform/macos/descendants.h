#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <vector>

namespace sorvane::platform {

/// Descendants knows the processes that came of one command: the members of its process group, the children of those
/// that it knows, and the members of the sessions that one of them began, wherever they went. The system hands orphans
/// to process 1: a process that left the group is lost when its parent ended before anybody looked and began no
/// session. One thread.
class Descendants {
 public:
  /// `command` leads its process group; `output` is the writing end of its output pipe, which may be closed afterwards.
  Descendants(pid_t command, int output);

  /// Looks at the group and at the children of all that are known, and forgets those that are gone. What was not known
  /// before.
  std::vector<pid_t> look();
  /// The same, and among all processes of this user for the sessions and the output.
  std::vector<pid_t> lookEverywhere();
  /// The same as `look` for the children of one process.
  std::vector<pid_t> lookBelow(pid_t parent);
  /// The process has just ended.
  void ended(pid_t process);
  /// Whether one was alive at the last look.
  bool any() const { return !known_.empty(); }
  /// The command is buried: its number may become another group's, which is let be from now on.
  void leaderBuried() { isGroupOurs_ = false; }
  /// To the group and to all that are known. A process that is not the one that was seen is left alone.
  void signal(int number) const;

 private:
  void note(pid_t process, pid_t parent, std::vector<pid_t>& fresh);
  bool isOfKnownSession(pid_t process) const;
  bool holdsOutput(pid_t process) const;
  void descend(std::vector<pid_t>& fresh, std::size_t from);

  const pid_t command_;
  const std::uint64_t output_;  ///< the system's name of that end; 0: unknown
  bool isGroupOurs_ = true;
  std::map<pid_t, std::uint64_t> past_;  ///< those that are gone, with the time at which that was seen
  std::map<pid_t, std::uint64_t>
      known_;  ///< with the time of its start, in microseconds, which tells a reused number apart
};

}  // namespace sorvane::platform
