#pragma once

#include <cstdint>
#include <string_view>

#include "proxy/limits.h"
#include "proxy/refusal.h"

namespace sorvane::proxy::refusal {

// What the server alone refuses; the table is in docs/proxy.md.
ProxyRefusal busy();
ProxyRefusal headTimedOut();
ProxyRefusal misdirected();
ProxyRefusal browser();
ProxyRefusal noSuchEndpoint();
ProxyRefusal methodNotAllowed();
ProxyRefusal notJson();
ProxyRefusal ambiguousCredentials();
ProxyRefusal tooManyInvalidKeys(int retryAfterSeconds);
ProxyRefusal providerNotSetUp(ProxyProvider provider);
ProxyRefusal expectationFailed();
ProxyRefusal lengthRequired();
ProxyRefusal bodyTooLarge(std::int64_t limitBytes);
ProxyRefusal bodyTimedOut();
ProxyRefusal moreThanTold();
ProxyRefusal invalidHeader(std::string_view name);

}  // namespace sorvane::proxy::refusal
