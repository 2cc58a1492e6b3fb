#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "base/secret_text.h"

namespace sorvane::platform {

/// Texts longer than this are read as no text.
inline constexpr std::size_t kMaxClipboardBytes = 16U << 20U;

/// What the clipboard holds, as text; nullopt for nothing, for too much and for what is not UTF-8.
std::optional<base::SecretText> clipboardText(std::span<const std::uint8_t> held);

/// WipedBytes is a copy of a text in memory that is handed to the system: `data` is its to free, with `free`, which
/// wipes it first. Null, and no bytes, for an empty text and where there is no memory.
struct WipedBytes {
  explicit WipedBytes(const base::SecretText& text);
  static void free(void* data, std::size_t size) noexcept;
  void* data = nullptr;
  std::size_t size = 0;
};

}  // namespace sorvane::platform
