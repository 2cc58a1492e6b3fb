#pragma once

#include <optional>
#include <string_view>

#include "proxy/request_head.h"

namespace sorvane::proxy {

/// What "anthropic-version" is taken to be when a client sends none.
inline constexpr std::string_view kAnthropicVersion = "2023-06-01";

/// The name of the first header that would be passed on to a provider and is not in the form it must have: a version
/// is a date, betas are a list of at most 16 plain names, identifiers are at most 128 plain characters. Every other
/// header is dropped and not looked at.
std::optional<std::string_view> badForwardedHeader(const ProxyRequestHead& head);

}  // namespace sorvane::proxy
