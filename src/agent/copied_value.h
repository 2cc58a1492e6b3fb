#pragma once

#include <chrono>
#include <optional>
#include <thread>

#include "agent/clipboard.h"
#include "base/mutex.h"
#include "crypto/digest.h"

namespace sorvane::agent {

/// How long a copied value stays on the clipboard.
inline constexpr std::chrono::seconds kClipboardSeconds{45};

/// CopiedValue puts a value on the clipboard and clears it later, unless something else was copied meanwhile, which the
/// clipboard tells, or else the value's digest: the value itself is not kept. One thread, started at the first copy,
/// ended with this object, which clears what is still there. Any thread may call.
class CopiedValue {
 public:
  explicit CopiedValue(Clipboard& clipboard, std::chrono::milliseconds keep = kClipboardSeconds)
      : clipboard_(clipboard), keep_(keep) {}
  ~CopiedValue();

  /// False when the clipboard could not be written.
  bool copy(const base::SecretText& value);
  /// Whether the text is what was copied last and not cleared yet.
  bool isOurs(const base::SecretText& text);

 private:
  void watch(std::stop_token stop);
  void clearOurs(const crypto::Sha256Digest& digest);

  // Constant after construction.
  Clipboard& clipboard_;
  const std::chrono::milliseconds keep_;
  // Guarded. A leaf: the clipboard is used without it.
  base::Mutex mutex_;
  base::Condition changed_;
  std::optional<crypto::Sha256Digest> digest_ GUARDED_BY(mutex_);
  std::chrono::steady_clock::time_point clearAt_ GUARDED_BY(mutex_);
  std::jthread thread_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::agent
