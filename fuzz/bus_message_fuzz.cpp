// Messages of the system bus and polkit's question in them: what is read is written so that the same is read again, and
// a length that was told is kept.
#include <cstdint>
#include <cstdlib>

#include "platform/linux/bus_wire.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace sorvane::platform;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const auto length = messageLength(bytes.substr(0, kBusPrefix));
  const auto message = readMessage(bytes);
  if (!message) return 0;
  if (length != size) std::abort();
  if (readMessage(written(*message)) != message) std::abort();
  if (const auto question = readAgentQuestion(*message)) {
    // Every user has at least a word and a number in the body.
    if (question->users.size() * 8 > size) std::abort();
  }
  return 0;
}
