// However a stream is cut, the same lines come out of it and none is longer than the limit; a line is either refused
// with a code and an id that may be answered, or a message whose parts have the right shape.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "cli/mcp_frame.h"

namespace {

using namespace sorvane::cli::mcp;

constexpr std::size_t kLimit = 256;

std::vector<std::string> linesOf(std::string_view stream, std::size_t piece) {
  LineDecoder decoder(kLimit);
  std::vector<std::string> lines;
  while (!stream.empty()) {
    std::string_view bytes = stream.substr(0, piece);
    stream.remove_prefix(bytes.size());
    while (!bytes.empty()) {
      const auto line = decoder.take(bytes);
      if (!line) continue;
      if (line->text.size() > kLimit || (line->tooLong && !line->text.empty())) std::abort();
      lines.emplace_back(line->tooLong ? "\n" : line->text.view());
    }
  }
  return lines;
}

void check(std::string_view text) {
  Frame frame = decodeFrame(text);
  const bool hasId = frame.id.is_string() || frame.id.is_number_integer();
  if (!hasId && !frame.id.is_null()) std::abort();
  if (!frame.params.is_object()) std::abort();
  switch (frame.kind) {
    case Frame::Kind::refused:
      if (frame.problem.empty() || (frame.errorCode != kParseError && frame.errorCode != kInvalidRequest)) std::abort();
      break;
    case Frame::Kind::request:
      if (!hasId) std::abort();
      break;
    case Frame::Kind::notification:
      if (hasId) std::abort();
      break;
    case Frame::Kind::response:
      break;
  }
  wipeTexts(frame.params);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view stream(reinterpret_cast<const char*>(data), size);
  const auto whole = linesOf(stream, size == 0 ? 1 : size);
  if (size > 0 && linesOf(stream, 1 + data[0] % 7u) != whole) std::abort();
  for (const std::string& line : whole) check(line);
  check(stream);
  return 0;
}
