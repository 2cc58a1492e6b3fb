#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string_view>

#include "base/secret_text.h"

namespace sorvane::platform {

/// TerminalPrompt reads what a person types on a terminal: without echo, and in raw mode, so that Ctrl-C is an answer
/// and the terminal is never left without its echo. What was typed before the prompt appeared is discarded. One read at
/// a time; the caller sees to it that nobody else reads the terminal meanwhile.
class TerminalPrompt {
 public:
  /// The longest line in bytes; what is typed beyond it is dropped.
  static constexpr std::size_t kMaxBytes = 1024;

  explicit TerminalPrompt(std::filesystem::path terminal = "/dev/tty") : terminal_(std::move(terminal)) {}

  /// Whether the terminal can be opened now.
  bool isThere() const;
  void show(std::string_view text) const;

  enum class Echo { no, yes };
  using Deadline = std::chrono::steady_clock::time_point;
  /// Shows `prompt` and reads until Enter. Backspace takes a character back and Ctrl-U all of them. nullopt for Ctrl-C
  /// and Ctrl-D, when the deadline passed, the terminal closed, or `withdrawn` (a descriptor) became readable.
  std::optional<base::SecretText> read(std::string_view prompt, Echo echo, Deadline deadline, int withdrawn) const;

 private:
  const std::filesystem::path terminal_;
};

}  // namespace sorvane::platform
