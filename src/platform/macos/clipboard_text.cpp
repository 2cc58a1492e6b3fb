#include "platform/macos/clipboard_text.h"

#include <cstdlib>
#include <cstring>

#include "base/unicode.h"

namespace sorvane::platform {

std::optional<base::SecretText> clipboardText(std::span<const std::uint8_t> held) {
  const std::string_view text = base::textOf(held);
  if (text.empty() || text.size() > kMaxClipboardBytes || !base::isUtf8(text)) return std::nullopt;
  return base::SecretText(text);
}

WipedBytes::WipedBytes(const base::SecretText& text) {
  data = text.empty() ? nullptr : std::malloc(text.size());
  if (data == nullptr) return;
  size = text.size();
  std::memcpy(data, text.view().data(), size);
}

void WipedBytes::free(void* data, std::size_t size) noexcept {
  base::wipe(data, size);
  std::free(data);
}

}  // namespace sorvane::platform
