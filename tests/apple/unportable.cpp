// What a check of the portable sources must find in its place, and what it must not take for it: /proc, pipe2 and
// "platform/linux/clipboard.h" in a comment are none.

#include <sys/epoll.h>
#include <sys/socket.h>

#include <string>

#include "platform/linux/clipboard.h"

/* memfd_create either */
const std::string kFine = "pipe2 // in a text";
const std::string kStatus = "/proc/self/status";
int opened() {
  return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);  // accept4
}
struct Notes {
  int eventfd_note = 0;
};
