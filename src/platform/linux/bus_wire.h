#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sorvane::platform {

// The little of the D-Bus wire format (the message protocol of D-Bus, version 1) that the agent on a terminal
// needs: the helper program is linked statically and cannot use the system's library. Messages are in this machine's
// byte order, which is the one that everybody on its bus uses.

/// Messages longer than this are refused; a question to the agent has a few hundred bytes.
inline constexpr std::size_t kMaxBusMessage = 256 * 1024;
/// The bytes from which the length of a message can be told.
inline constexpr std::size_t kBusPrefix = 16;

struct BusMessage {
  enum class Kind : std::uint8_t { call = 1, reply = 2, error = 3, signal = 4 };
  Kind kind = Kind::call;
  std::uint32_t serial = 0;
  std::uint32_t replySerial = 0;  ///< of replies and errors
  bool wantsReply = true;
  std::string path, interface, member, error, destination, sender, signature;
  std::string body;

  bool operator==(const BusMessage&) const = default;
};

/// The bytes of a message. Empty fields are left out.
std::string written(const BusMessage& message);
/// The length of the message that begins with these kBusPrefix bytes; nullopt: it is none, or too long.
std::optional<std::size_t> messageLength(std::string_view prefix);
/// nullopt for bytes that are no message, or one whose header has fields of a kind that nobody defined.
std::optional<BusMessage> readMessage(std::string_view bytes);

/// BusWriter writes values as they stand in a body.
class BusWriter {
 public:
  void align(std::size_t to) { bytes_.resize((bytes_.size() + to - 1) / to * to); }
  void byte(std::uint8_t value) { bytes_ += static_cast<char>(value); }
  void number(std::uint32_t value);
  void longNumber(std::uint64_t value);
  void text(std::string_view value);
  void signature(std::string_view value);
  struct Array {
    std::size_t length, first;  ///< where its length and its first element stand
  };
  /// Begins an array whose elements are aligned to 8 bytes.
  Array begin();
  void end(const Array& array);

  const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

/// BusReader reads values as they stand in a body. After the first that is not there or not allowed everything is empty
/// and `failed` says so.
class BusReader {
 public:
  explicit BusReader(std::string_view bytes) : bytes_(bytes) {}

  void align(std::size_t to);
  std::uint8_t byte();
  std::uint32_t number();
  std::string text();
  std::string signature();
  /// The end of an array whose elements are aligned to 8 bytes; `hasMore` until there.
  std::size_t arrayEnd();
  bool hasMore(std::size_t end);
  /// A value of one of the basic types; its number when it is a uint32.
  std::optional<std::uint32_t> variant();

  bool failed() const { return failed_; }
  std::size_t position() const { return position_; }

 private:
  void fail() { failed_ = true; }
  /// The next bytes; empty after a failure.
  std::string_view take(std::size_t count);
  std::string terminated(std::size_t length);

  const std::string_view bytes_;
  std::size_t position_ = 0;
  bool failed_ = false;
};

/// What polkit asks an agent (org.freedesktop.PolicyKit1.AuthenticationAgent, BeginAuthentication).
struct AgentQuestion {
  std::string action, cookie;
  std::vector<std::uint32_t> users;  ///< the user ids of whom the password is taken
};
/// nullopt for a call with other arguments.
std::optional<AgentQuestion> readAgentQuestion(const BusMessage& call);

}  // namespace sorvane::platform
