#include "platform/adapters_terminal.h"

namespace sorvane::platform {
namespace {

/// The system asks in a window of its own, wherever the person typed.
class WindowQuestion final : public TerminalQuestion {
 public:
  bool answersHere() const override { return false; }
};

}  // namespace

std::unique_ptr<TerminalQuestion> askOnTerminal(std::string) {
  return std::make_unique<WindowQuestion>();
}

}  // namespace sorvane::platform
