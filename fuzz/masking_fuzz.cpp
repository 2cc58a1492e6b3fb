// No value survives in any split of the input, every split gives the same output, and the output is UTF-8.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "agent/masking.h"
#include "base/unicode.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace sorvane::agent;
  if (size < 4) return 0;
  const std::string_view input(reinterpret_cast<const char*>(data + 4), size - 4);
  const std::size_t first = std::min<std::size_t>(data[0] % 24, input.size());
  const std::size_t second = std::min<std::size_t>(data[1] % 24, input.size() - first);
  const std::vector<std::string_view> values{input.substr(0, first), input.substr(first, second)};
  const Masker masker(values);
  std::string whole, split;
  MaskingStream one(masker), many(masker);
  one.feed(input, whole);
  one.finish(whole);
  const std::size_t step = 1 + data[2] % 17;
  for (std::size_t at = 0; at < input.size(); at += step) many.feed(input.substr(at, step), split);
  many.finish(split);
  if (whole != split || !sorvane::base::isUtf8(whole)) std::abort();
  for (const std::string_view value : values) {
    if (value.empty() || !sorvane::base::isUtf8(value)) continue;
    for (std::size_t at = 0, mark; at <= whole.size(); at = mark + kMask.size()) {
      mark = std::min(whole.find(kMask, at), whole.size());
      const std::string_view between = std::string_view(whole).substr(at, mark - at);
      // A replacement character may complete a value that the input did not hold.
      if (between.find(value) != std::string_view::npos && value.find("\xEF\xBF\xBD") == std::string_view::npos)
        std::abort();
    }
  }
  return 0;
}
