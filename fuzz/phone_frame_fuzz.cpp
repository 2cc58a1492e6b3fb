// Frames of the link to a phone: however the bytes are cut, the same bodies come out, they are written back to the
// bytes they were read from, and what is left is less than one frame. The first byte says how the rest is cut.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

#include "phone/frame.h"

namespace {

using namespace sorvane;

std::vector<std::string> bodiesOf(std::span<const std::uint8_t> bytes, std::size_t atATime,
                                  phone::FrameReader& reader) {
  std::vector<std::string> bodies;
  while (!bytes.empty()) {
    const auto now = bytes.first(std::min(atATime, bytes.size()));
    bytes = bytes.subspan(now.size());
    reader.add(now);
    while (auto body = reader.next()) bodies.push_back(std::move(*body));
  }
  return bodies;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::span<const std::uint8_t> bytes(data + 1, size - 1);
  phone::FrameReader whole, cut;
  const auto bodies = bodiesOf(bytes, size, whole);
  if (bodies != bodiesOf(bytes, std::size_t{data[0]} + 1, cut)) std::abort();
  if (whole.isBroken() != cut.isBroken() || whole.hasBegun() != cut.hasBegun()) std::abort();
  base::Bytes written;
  for (const std::string& body : bodies) {
    const auto frame = phone::writeFrame(body);
    if (!frame) std::abort();
    written.insert(written.end(), frame->begin(), frame->end());
  }
  if (written.size() > bytes.size() || !std::equal(written.begin(), written.end(), bytes.begin())) std::abort();
  const std::size_t left = bytes.size() - written.size();
  if (!whole.isBroken() && (left > phone::kFrameHeadBytes + phone::kMostFrameBytes || whole.hasBegun() != (left > 0))) {
    std::abort();
  }
  return 0;
}
