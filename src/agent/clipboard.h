#pragma once

#include <optional>
#include <string>

#include "base/secret_text.h"

namespace sorvane::agent {

/// Clipboard is the system's clipboard, text only. Any thread.
class Clipboard {
 public:
  virtual ~Clipboard() = default;
  /// False where this session has no clipboard.
  virtual bool available() const = 0;
  /// nullopt when it holds no text or there is none.
  virtual std::optional<base::SecretText> read() = 0;
  /// False when it could not be written. An empty text clears it.
  virtual bool write(const base::SecretText& text) = 0;
};

}  // namespace sorvane::agent
