#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "agent/masking.h"

namespace sorvane::cli {

/// MaskedOutput takes what a command writes from one descriptor to another, with the values masked, and at once but for
/// what may be the beginning of a value. Borrows both descriptors; `from` must not block. The masker must outlive it.
class MaskedOutput {
 public:
  /// A beginning of a value that is shorter than agent::MaskingStream::kKeptAcrossPauses is shown after so long.
  static constexpr std::chrono::milliseconds kPause{100};

  /// `from` may be -1: nothing will come.
  MaskedOutput(int from, int to, const agent::Masker& masker)
      : from_(from), to_(to), stream_(masker), ended_(from < 0) {}

  /// The descriptor to wait for, or -1 when nothing more will come.
  int from() const { return ended_ ? -1 : from_; }
  /// Nobody reads what is written any more.
  bool readerIsGone() const { return gone_; }
  /// Passes on what is there, at most a bounded part of it.
  void pump();
  /// Milliseconds until `pauseIfDue` has something to do; nullopt when nothing waits.
  std::optional<int> waits() const;
  void pauseIfDue();
  /// Nothing more is passed on.
  void stop() { ended_ = true; }
  /// The command has ended: passes on all that it left.
  void finish();

 private:
  using Clock = std::chrono::steady_clock;
  /// False when there is nothing to read now.
  bool readPiece();
  void write();

  const int from_, to_;
  agent::MaskingStream stream_;
  std::string out_;
  std::optional<Clock::time_point> pauseAt_;
  bool ended_ = false, gone_ = false;
};

/// Writes everything, waiting where the reader is slow; false when there is no reader.
bool writeWhole(int to, std::string_view text);

/// Makes reads and writes of a descriptor return at once.
void neverWait(int descriptor);

}  // namespace sorvane::cli
