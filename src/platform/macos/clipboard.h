#pragma once

#include <cstdint>
#include <optional>

#include "agent/clipboard.h"
#include "base/mutex.h"

namespace sorvane::platform {

/// PasteboardClipboard is the general pasteboard. What is written stays on this computer, and is marked as concealed
/// and as transient, which programs that keep what was on the pasteboard heed. Texts over 16 MiB and what is not UTF-8
/// are read as none. Any thread; one call at a time reaches the pasteboard. The system may ask the owner before it lets
/// a program read, and `read` waits meanwhile.
class PasteboardClipboard final : public agent::Clipboard {
 public:
  bool available() const override;
  std::optional<base::SecretText> read() override;
  bool write(const base::SecretText& text) override;
  agent::StillThere lastWrite() override;

 private:
  // Held across a call, which nothing of ours is called from.
  mutable base::Mutex mutex_;
  // The pasteboard's count of changes as it was with what was written last.
  std::optional<std::int64_t> written_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::platform
