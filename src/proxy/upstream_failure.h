#pragma once

#include "proxy/refusal.h"
#include "proxy/transport.h"

namespace sorvane::proxy {

/// What the client is told when its provider could not answer. The sentence says whether the call is charged.
ProxyRefusal refusalOf(const UpstreamResult& result, ProxyProvider provider);

}  // namespace sorvane::proxy
