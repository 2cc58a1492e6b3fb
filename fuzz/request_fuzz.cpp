// What decodes is written back to a text that decodes to the same record; nothing else is accepted.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "agent/owner_protocol.h"
#include "agent/protocol.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace sorvane::agent;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (const auto request = decodeRequest(text)) {
    const auto written = encodeRequest(*request);
    const auto again = decodeRequest(written.view());
    if (!again || encodeRequest(*again).view() != written.view()) std::abort();
  }
  if (const auto response = decodeResponse(text)) {
    const auto written = encodeResponse(*response);
    const auto again = decodeResponse(written.view());
    if (!again || encodeResponse(*again).view() != written.view()) std::abort();
  }
  if (const auto request = decodeOwnerRequest(text)) {
    const auto written = encodeOwnerRequest(*request);
    const auto again = decodeOwnerRequest(written.view());
    if (!again || encodeOwnerRequest(*again).view() != written.view()) std::abort();
  }
  if (const auto answer = decodeOwnerAnswer(text)) {
    const auto written = encodeOwnerAnswer(*answer);
    const auto again = decodeOwnerAnswer(written.view());
    if (!again || encodeOwnerAnswer(*again).view() != written.view()) std::abort();
  }
  return 0;
}
