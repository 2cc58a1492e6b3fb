#include "platform/macos/managed_settings.h"

#include "platform/macos/core_foundation.h"

#include <strings.h>

#include <algorithm>
#include <array>

namespace sorvane::platform {
namespace {

std::optional<bool> truthOfText(const std::string& text) {
  const auto isOneOf = [&](const auto& words) {
    return std::ranges::any_of(words, [&](const char* word) { return ::strcasecmp(text.c_str(), word) == 0; });
  };
  if (isOneOf(std::array{"yes", "true", "1"})) return true;
  if (isOneOf(std::array{"no", "false", "0"})) return false;
  return std::nullopt;
}

}  // namespace

std::optional<bool> managedFollowsSession(std::string_view domain,
                                          const std::function<void(const std::string&)>& warn) {
  const auto key = stringOf("UnlockFollowsSession");
  const auto application = stringOf(domain);
  if (!key || !application || !CFPreferencesAppValueIsForced(key.get(), application.get())) return std::nullopt;
  const Owned<CFPropertyListRef> value(CFPreferencesCopyAppValue(key.get(), application.get()));
  auto follows = truthOf(value.get());
  if (const auto text = textOf(value.get())) follows = truthOfText(*text);
  if (!follows) {
    warn("The organization's setting UnlockFollowsSession in " + std::string(domain) +
         " is neither true nor false, so it counts as false. Ask whoever looks after this Mac to put it right.");
  }
  return follows.value_or(false);
}

}  // namespace sorvane::platform
