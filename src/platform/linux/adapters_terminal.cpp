#include "platform/adapters_terminal.h"

#include "platform/linux/polkit_text_agent.h"

namespace sorvane::platform {
namespace {

class PolkitQuestion final : public TerminalQuestion {
 public:
  explicit PolkitQuestion(std::string reason) : agent_(std::move(reason)) {}
  bool answersHere() const override { return agent_.answersHere(); }

 private:
  const PolkitTextAgent agent_;
};

}  // namespace

std::unique_ptr<TerminalQuestion> askOnTerminal(std::string reason) {
  return std::make_unique<PolkitQuestion>(std::move(reason));
}

}  // namespace sorvane::platform
