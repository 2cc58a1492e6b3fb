#pragma once

#include <optional>
#include <string>

#include "base/secret_text.h"

namespace sorvane::agent {

/// Whether a clipboard still holds what was written to it; `unknown` where that takes reading it.
enum class StillThere { yes, no, unknown };

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
  /// Whether nobody put anything there since the last `write` to this object, told without reading: where the system
  /// counts the changes. A read of what another program put there may have the system ask the owner.
  virtual StillThere lastWrite() { return StillThere::unknown; }
};

}  // namespace sorvane::agent
