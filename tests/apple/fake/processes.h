#pragma once

#include <sys/types.h>

#include <map>
#include <set>
#include <string>

/// libproc over /proc: real processes and real sockets, told in the way of macOS.
namespace fake {

std::set<pid_t> childrenOf(pid_t process);
/// Whether it has ended and is not buried.
bool isZombie(pid_t process);

/// So many of the next questions for the size of a table are answered as if there were nothing in it yet.
void growNextTables(int count);

/// Processes of another user, beside the real ones: the kernel's table alone tells of them.
struct Stranger {
  pid_t parent = 0;
  std::string name;
};
void setStrangers(std::map<pid_t, Stranger> strangers);

}  // namespace fake
