#include "phone/frame.h"

namespace sorvane::phone {

std::optional<base::Bytes> writeFrame(std::string_view body) {
  if (body.empty() || body.size() > kMostFrameBytes) return std::nullopt;
  base::Bytes frame;
  frame.reserve(kFrameHeadBytes + body.size());
  for (const int shift : {24, 16, 8, 0}) frame.push_back(static_cast<std::uint8_t>(body.size() >> shift & 0xFF));
  frame.insert(frame.end(), body.begin(), body.end());
  return frame;
}

std::optional<std::size_t> FrameReader::length() const {
  if (held_.size() < kFrameHeadBytes) return std::nullopt;
  std::size_t length = 0;
  for (std::size_t i = 0; i < kFrameHeadBytes; ++i) length = length << 8 | static_cast<std::uint8_t>(held_[i]);
  return length;
}

void FrameReader::check() {
  const auto announced = length();
  if (!announced || (*announced >= 1 && *announced <= kMostFrameBytes)) return;
  broken_ = true;
  held_ = {};
}

void FrameReader::add(std::span<const std::uint8_t> bytes) {
  if (broken_) return;
  held_.append(base::textOf(bytes));
  check();
}

std::optional<std::string> FrameReader::next() {
  const auto announced = broken_ ? std::nullopt : length();
  if (!announced || held_.size() < kFrameHeadBytes + *announced) return std::nullopt;
  std::string body = held_.substr(kFrameHeadBytes, *announced);
  held_.erase(0, kFrameHeadBytes + *announced);
  // An idle link holds nothing.
  if (held_.empty()) held_ = {};
  check();
  return body;
}

}  // namespace sorvane::phone
