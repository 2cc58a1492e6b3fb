#include "platform/linux/bus_wire.h"

#include <bit>
#include <cstring>

namespace sorvane::platform {
namespace {

constexpr char kByteOrder = std::endian::native == std::endian::little ? 'l' : 'B';
constexpr std::uint8_t kVersion = 1, kNoReplyExpected = 1;

/// Codes of the header's fields.
enum Field : std::uint8_t {
  path = 1,
  interface = 2,
  member = 3,
  error = 4,
  replySerial = 5,
  destination = 6,
  sender = 7,
  signature = 8,
  descriptors = 9,
};

constexpr std::size_t aligned(std::size_t length) {
  return (length + 7) / 8 * 8;
}

/// The place for a text of the header; nullptr for other fields.
std::string* textOf(BusMessage& message, std::uint8_t field) {
  switch (field) {
    case Field::path:
      return &message.path;
    case Field::interface:
      return &message.interface;
    case Field::member:
      return &message.member;
    case Field::error:
      return &message.error;
    case Field::destination:
      return &message.destination;
    case Field::sender:
      return &message.sender;
    default:
      return nullptr;
  }
}

void writeText(BusWriter& out, Field field, const char* type, const std::string& text) {
  if (text.empty()) return;
  out.align(8);
  out.byte(field);
  out.signature(type);
  out.text(text);
}

/// Whether the field could be read.
bool readField(BusReader& in, BusMessage& message) {
  in.align(8);
  const std::uint8_t field = in.byte();
  const std::string type = in.signature();
  if (std::string* const text = textOf(message, field)) {
    if (type != (field == Field::path ? "o" : "s")) return false;
    *text = in.text();
  } else if (field == Field::signature && type == "g") {
    message.signature = in.signature();
  } else if (field == Field::replySerial && type == "u") {
    message.replySerial = in.number();
  } else if (field == Field::descriptors && type == "u") {
    in.number();
  } else {
    return false;
  }
  return !in.failed();
}

}  // namespace

void BusWriter::number(std::uint32_t value) {
  align(4);
  bytes_.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void BusWriter::longNumber(std::uint64_t value) {
  align(8);
  bytes_.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void BusWriter::text(std::string_view value) {
  number(static_cast<std::uint32_t>(value.size()));
  bytes_ += value;
  bytes_ += '\0';
}

void BusWriter::signature(std::string_view value) {
  byte(static_cast<std::uint8_t>(value.size()));
  bytes_ += value;
  bytes_ += '\0';
}

BusWriter::Array BusWriter::begin() {
  number(0);
  const std::size_t length = bytes_.size() - 4;
  align(8);
  return {length, bytes_.size()};
}

void BusWriter::end(const Array& array) {
  const auto length = static_cast<std::uint32_t>(bytes_.size() - array.first);
  std::memcpy(bytes_.data() + array.length, &length, sizeof length);
}

void BusReader::align(std::size_t to) {
  const std::string_view padding = take((to - position_ % to) % to);
  if (padding.find_first_not_of('\0') != std::string_view::npos) fail();
}

std::string_view BusReader::take(std::size_t count) {
  if (failed_ || count > bytes_.size() - position_) {
    fail();
    return {};
  }
  const std::string_view taken = bytes_.substr(position_, count);
  position_ += count;
  return taken;
}

std::uint8_t BusReader::byte() {
  const std::string_view taken = take(1);
  return taken.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(taken[0]);
}

std::uint32_t BusReader::number() {
  align(4);
  const std::string_view taken = take(4);
  std::uint32_t value = 0;
  if (!taken.empty()) std::memcpy(&value, taken.data(), sizeof value);
  return value;
}

std::string BusReader::terminated(std::size_t length) {
  const std::string_view taken = take(length), end = take(1);
  if (failed_ || end[0] != '\0' || taken.find('\0') != std::string_view::npos) {
    fail();
    return {};
  }
  return std::string(taken);
}

std::string BusReader::text() {
  const std::size_t length = number();
  return terminated(length);
}

std::string BusReader::signature() {
  const std::size_t length = byte();
  return terminated(length);
}

std::size_t BusReader::arrayEnd() {
  const std::size_t length = number();
  align(8);
  if (failed_ || length > bytes_.size() - position_) fail();
  return failed_ ? position_ : position_ + length;
}

bool BusReader::hasMore(std::size_t end) {
  // An element that reaches beyond its array.
  if (position_ > end) fail();
  return !failed_ && position_ < end;
}

std::optional<std::uint32_t> BusReader::variant() {
  const std::string type = signature();
  if (type == "u") return number();
  if (type == "s" || type == "o") {
    text();
  } else if (type == "g") {
    signature();
  } else if (type == "i" || type == "b") {
    number();
  } else if (type == "x" || type == "t" || type == "d") {
    align(8);
    take(8);
  } else {
    fail();
  }
  return std::nullopt;
}

std::string written(const BusMessage& message) {
  BusWriter out;
  out.byte(static_cast<std::uint8_t>(kByteOrder));
  out.byte(static_cast<std::uint8_t>(message.kind));
  out.byte(message.wantsReply ? 0 : kNoReplyExpected);
  out.byte(kVersion);
  out.number(static_cast<std::uint32_t>(message.body.size()));
  out.number(message.serial);
  const auto fields = out.begin();
  writeText(out, Field::path, "o", message.path);
  writeText(out, Field::interface, "s", message.interface);
  writeText(out, Field::member, "s", message.member);
  writeText(out, Field::error, "s", message.error);
  writeText(out, Field::destination, "s", message.destination);
  writeText(out, Field::sender, "s", message.sender);
  if (message.replySerial != 0) {
    out.align(8);
    out.byte(Field::replySerial);
    out.signature("u");
    out.number(message.replySerial);
  }
  if (!message.signature.empty()) {
    out.align(8);
    out.byte(Field::signature);
    out.signature("g");
    out.signature(message.signature);
  }
  out.end(fields);
  out.align(8);
  return out.bytes() + message.body;
}

std::optional<std::size_t> messageLength(std::string_view prefix) {
  if (prefix.size() < kBusPrefix || prefix[0] != kByteOrder) return std::nullopt;
  BusReader in(prefix);
  in.number();
  const std::size_t body = in.number();
  in.number();
  const std::size_t fields = in.number();
  if (body > kMaxBusMessage || fields > kMaxBusMessage) return std::nullopt;
  const std::size_t length = aligned(kBusPrefix + fields) + body;
  return length > kMaxBusMessage ? std::nullopt : std::optional(length);
}

std::optional<BusMessage> readMessage(std::string_view bytes) {
  if (messageLength(bytes.substr(0, kBusPrefix)) != bytes.size()) return std::nullopt;
  BusReader in(bytes);
  BusMessage message;
  in.byte();
  const std::uint8_t kind = in.byte(), flags = in.byte(), version = in.byte();
  const std::size_t bodyLength = in.number();
  message.serial = in.number();
  if (kind < 1 || kind > 4 || version != kVersion || message.serial == 0) return std::nullopt;
  message.kind = static_cast<BusMessage::Kind>(kind);
  message.wantsReply = (flags & kNoReplyExpected) == 0;
  for (const std::size_t end = in.arrayEnd(); in.hasMore(end);) {
    if (!readField(in, message)) return std::nullopt;
  }
  in.align(8);
  if (in.failed() || bytes.size() - in.position() != bodyLength) return std::nullopt;
  message.body = bytes.substr(in.position());
  return message;
}

std::optional<AgentQuestion> readAgentQuestion(const BusMessage& call) {
  if (call.signature != "sssa{ss}sa(sa{sv})") return std::nullopt;
  BusReader in(call.body);
  AgentQuestion question;
  question.action = in.text();
  in.text();  // the message, which is fixed
  in.text();  // the icon
  for (const std::size_t end = in.arrayEnd(); in.hasMore(end);) {
    in.align(8);
    in.text();
    in.text();
  }
  question.cookie = in.text();
  for (const std::size_t end = in.arrayEnd(); in.hasMore(end);) {
    in.align(8);
    const bool isUser = in.text() == "unix-user";
    for (const std::size_t words = in.arrayEnd(); in.hasMore(words);) {
      in.align(8);
      const bool isId = in.text() == "uid";
      const auto value = in.variant();
      if (isUser && isId && value) question.users.push_back(*value);
    }
  }
  if (in.failed()) return std::nullopt;
  return question;
}

}  // namespace sorvane::platform
