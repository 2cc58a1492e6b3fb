#pragma once

#include <optional>

#include "base/descriptor.h"

namespace sorvane::base {

// As socket, accept and pipe; no program that this process starts inherits what they open. Empty, with errno, when the
// system refuses. They differ between the systems, as those in base/system.h do.

Descriptor openSocket(int family, int type);
Descriptor acceptFrom(int listener);
/// The flag for `send` on such a socket with which a peer that is gone raises no signal.
int quietSend();
/// Has the system end a TCP connection whose other end vanished without a word, within about a minute, also while
/// something that was sent is not acknowledged.
void noticeVanishedPeer(int connection);
struct Pipe {
  Descriptor read, write;
};
std::optional<Pipe> openPipe();
/// Two connected Unix-domain stream sockets.
struct SocketPair {
  Descriptor first, second;
};
std::optional<SocketPair> openSocketPair();
/// Closes every descriptor of this process with a number above `last`.
void closeAbove(int last);

// The same on every system.

/// Makes calls on `fd` return instead of wait. False, with errno, when the system refuses.
bool setNonBlocking(int fd);
/// A pipe whose ends never make anybody wait: one byte in it wakes who polls the other end.
std::optional<Pipe> openWakePipe();
/// Puts a byte into the pipe. One that is full wakes just as well.
void wake(const Pipe& pipe);
/// Takes out all that was put in. Whether there was anything.
bool drain(const Pipe& pipe);

}  // namespace sorvane::base
