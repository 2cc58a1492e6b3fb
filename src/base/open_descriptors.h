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
struct Pipe {
  Descriptor read, write;
};
std::optional<Pipe> openPipe();

}  // namespace sorvane::base
