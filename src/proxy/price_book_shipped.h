#pragma once

#include <string_view>

namespace sorvane::proxy {

/// resources/prices.json as it was built in.
extern const std::string_view kShippedPrices;

}  // namespace sorvane::proxy
