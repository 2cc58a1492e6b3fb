#include "cli/masked_output.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "base/secret_text.h"

namespace sorvane::cli {
namespace {

/// Reads between two looks at what else happens, 16 KiB each.
constexpr int kReadsAtOnce = 16;
/// What a command left behind when it ended is at most what its terminal or pipe holds; what still writes then is none
/// of it.
constexpr int kReadsAtEnd = 256;

}  // namespace

void neverWait(int descriptor) {
  ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) | O_NONBLOCK);
}

bool writeWhole(int to, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(to, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      pollfd wait{to, POLLOUT, 0};
      ::poll(&wait, 1, -1);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

bool MaskedOutput::readPiece() {
  std::array<char, 16 * 1024> piece;
  const ssize_t got = ::read(from_, piece.data(), piece.size());
  if (got < 0 && errno == EINTR) return true;
  if (got < 0 && errno == EAGAIN) return false;
  if (got <= 0) {  // a pseudo-terminal that nobody has open any more gives an error
    ended_ = true;
    return false;
  }
  stream_.feed({piece.data(), static_cast<std::size_t>(got)}, out_);
  base::wipe(piece.data(), static_cast<std::size_t>(got));
  return true;
}

void MaskedOutput::write() {
  if (!gone_ && !writeWhole(to_, out_)) gone_ = true;
  out_.clear();
}

void MaskedOutput::pump() {
  for (int i = 0; i < kReadsAtOnce && readPiece(); ++i) {
  }
  if (ended_)
    stream_.finish(out_);
  else
    stream_.settle(out_);
  write();
  pauseAt_.reset();
  if (stream_.holds()) pauseAt_ = Clock::now() + kPause;
}

std::optional<int> MaskedOutput::waits() const {
  if (!pauseAt_) return std::nullopt;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*pauseAt_ - Clock::now());
  return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

void MaskedOutput::pauseIfDue() {
  if (!pauseAt_ || Clock::now() < *pauseAt_) return;
  pauseAt_.reset();
  stream_.pause(out_);
  write();
}

void MaskedOutput::finish() {
  if (ended_) return;
  for (int i = 0; i < kReadsAtEnd && readPiece(); ++i) {
  }
  ended_ = true;
  pauseAt_.reset();
  stream_.finish(out_);
  write();
}

}  // namespace sorvane::cli
