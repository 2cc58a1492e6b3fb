#include "proxy/request_head.h"

#include "proxy/http_text.h"

namespace sorvane::proxy {

const std::string* ProxyRequestHead::header(std::string_view lowerName) const {
  for (const ProxyHeader& header : headers) {
    if (sameName(header.name, lowerName)) return &header.value;
  }
  return nullptr;
}

}  // namespace sorvane::proxy
