#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/protocol.h"
#include "base/clock.h"
#include "base/error.h"

namespace sorvane::agent {

/// ActionError refuses an owner's action before anybody is asked; its sentence is shown as it stands.
class ActionError : public base::Error {
 public:
  using Error::Error;
};

/// ActionArguments reads the arguments of one owner's action from its payload (docs/owner-actions.md). Everything
/// malformed is an ActionError that names the action and the argument. Where an optional text may be cleared, the empty
/// text clears it: the outer optional tells whether the argument was given, the inner one what it holds.
class ActionArguments {
 public:
  ActionArguments(std::string_view action, const Payload& payload) : action_(action), payload_(payload) {}

  std::string_view action() const { return action_; }
  /// Not empty.
  const std::string& need(std::string_view name) const;
  std::optional<std::string> text(std::string_view name) const;
  std::optional<std::optional<std::string>> clearable(std::string_view name) const;
  std::optional<bool> boolean(std::string_view name) const;
  std::optional<std::int64_t> integer(std::string_view name) const;
  std::int64_t needInteger(std::string_view name) const;
  std::optional<std::optional<base::Date>> date(std::string_view name) const;
  std::optional<std::vector<std::string>> list(std::string_view name) const;
  /// A JSON array of pairs of text.
  std::vector<std::pair<std::string, std::string>> needPairs(std::string_view name) const;

 private:
  const std::string* find(std::string_view name) const;
  [[noreturn]] void malformed(std::string_view name, std::string_view expected) const;

  const std::string_view action_;
  const Payload& payload_;
};

}  // namespace sorvane::agent
