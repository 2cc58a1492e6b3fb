#pragma once

#include <cstddef>
#include <vector>

namespace sorvane::base {

/// Waits until the peer of one of the connected Unix-domain sockets is gone, or there is something to read at `wake`. A
/// peer that has only ended its sending is still there, and nothing that it sent is read. The places in `sockets` of
/// those whose peer is gone; empty when it was the other, or when the system cannot wait. It differs between the
/// systems, as those in base/system.h do.
std::vector<std::size_t> waitForHangup(const std::vector<int>& sockets, int wake);

}  // namespace sorvane::base
