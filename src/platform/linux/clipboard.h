#pragma once

#include <chrono>
#include <cstddef>

#include "agent/clipboard.h"

namespace sorvane::platform {

/// Texts longer than this are read as no text.
inline constexpr std::size_t kMaxClipboardBytes = 16U << 20U;
/// How long a clipboard program may take.
inline constexpr std::chrono::milliseconds kClipboardPatience{3000};

/// SystemClipboard reaches the clipboard through the programs of the session: wl-copy and wl-paste where
/// WAYLAND_DISPLAY is set, xclip where DISPLAY is set, looked up on PATH at each call. Texts pass through sockets and
/// pipes, never through arguments or files of ours. A program that takes longer than `patience` is killed. Any thread.
/// The writers stay in the background to serve what was copied, and are left there.
class SystemClipboard final : public agent::Clipboard {
 public:
  explicit SystemClipboard(std::chrono::milliseconds patience = kClipboardPatience) : patience_(patience) {}
  bool available() const override;
  std::optional<base::SecretText> read() override;
  bool write(const base::SecretText& text) override;

 private:
  const std::chrono::milliseconds patience_;
};

}  // namespace sorvane::platform
