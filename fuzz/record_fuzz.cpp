// Records that decode are written back to a text that decodes to the same records.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "vault/record_codec.h"

namespace {

template <typename T, typename Decode, typename Encode>
void roundTrip(std::string_view text, const Decode& decode, const Encode& encode) {
  auto first = decode(text);
  const auto* records = std::get_if<std::vector<T>>(&first);
  if (records == nullptr) return;
  const auto written = encode(*records);
  auto again = decode(written.view());
  const auto* same = std::get_if<std::vector<T>>(&again);
  if (same == nullptr || *same != *records) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace sorvane::vault;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  roundTrip<Secret>(
      text, [](auto t) { return decodeSecrets(t); }, [](const auto& r) { return encodeSecrets(r); });
  roundTrip<Project>(
      text, [](auto t) { return decodeProjects(t); }, [](const auto& r) { return encodeProjects(r); });
  if (const auto event = decodeEvent(text)) {
    sorvane::base::SecretText line;
    appendEventLine(line, *event);
    const auto again = decodeEvent(line.view().substr(0, line.size() - 1));
    if (!again || !(*again == *event)) std::abort();
  }
  return 0;
}
