#include "approver/frame.h"

#include "base/secret_text.h"

namespace sorvane::approver {
namespace {

constexpr std::size_t kLengthBytes = 4;

const char* sentenceOf(LinkError::Case kind) {
  switch (kind) {
    case LinkError::Case::unreadable:
      return "The computer sent something that cannot be read, so the link was ended. Nothing was answered.";
    case LinkError::Case::wrongComputer:
      return "Another computer answered than the one this device is paired with, so the link was ended. Nothing was "
             "answered.";
  }
  return "";
}

}  // namespace

LinkError::LinkError(Case kind) : Error(sentenceOf(kind)), kind_(kind) {}

std::string framed(std::string_view body) {
  std::string frame;
  frame.reserve(kLengthBytes + body.size());
  for (std::size_t shift = 8 * kLengthBytes; shift > 0; shift -= 8)
    frame.push_back(static_cast<char>(body.size() >> (shift - 8) & 0xFFU));
  return frame.append(body);
}

void FrameReader::add(std::span<const std::uint8_t> bytes) {
  buffer_.append(base::textOf(bytes));
}

std::optional<std::string> FrameReader::next() {
  if (buffer_.size() < kLengthBytes) return std::nullopt;
  std::size_t length = 0;
  for (std::size_t at = 0; at < kLengthBytes; ++at) length = length << 8U | static_cast<unsigned char>(buffer_[at]);
  if (length == 0 || length > kMostBodyBytes) throw LinkError(LinkError::Case::unreadable);
  if (buffer_.size() < kLengthBytes + length) return std::nullopt;
  std::string body = buffer_.substr(kLengthBytes, length);
  buffer_.erase(0, kLengthBytes + length);
  return body;
}

}  // namespace sorvane::approver
