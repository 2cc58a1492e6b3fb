#include "proxy/money.h"

namespace sorvane::proxy {

std::string dollarsOf(std::int64_t cents) {
  const std::string rest = std::to_string(cents % 100);
  return "$" + std::to_string(cents / 100) + (rest.size() < 2 ? ".0" : ".") + rest;
}

}  // namespace sorvane::proxy
