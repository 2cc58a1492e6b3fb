#include "platform/linux/bus_link.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace sorvane::platform {
namespace {

using std::chrono::steady_clock;

constexpr std::string_view kBus = "org.freedesktop.DBus";
/// The answer to the authentication fits into one line.
constexpr std::size_t kMaxLine = 1024;

/// The socket of the system bus; empty where it is none on a path.
std::string socketPath() {
  const char* const said = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
  if (said == nullptr) return "/run/dbus/system_bus_socket";
  const std::string_view address = said, prefix = "unix:path=";
  if (!address.starts_with(prefix)) return {};
  return std::string(address.substr(prefix.size(), address.find_first_of(",;") - prefix.size()));
}

std::string hex(std::string_view text) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string digits;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    digits += kDigits[byte >> 4U];
    digits += kDigits[byte & 0x0FU];
  }
  return digits;
}

int pollTime(const std::optional<BusLink::Deadline>& deadline) {
  if (!deadline) return -1;
  const auto rest = std::chrono::ceil<std::chrono::milliseconds>(*deadline - steady_clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(rest, 0, 3'600'000));
}

}  // namespace

BusLink::BusLink(Deadline deadline) {
  BusMessage hello;
  hello.path = "/org/freedesktop/DBus";
  hello.interface = hello.destination = kBus;
  hello.member = "Hello";
  const bool isIn = connectTo(socketPath()) && authenticate(deadline);
  const auto welcome = isIn ? call(hello, deadline) : std::nullopt;
  if (!welcome || welcome->kind != BusMessage::Kind::reply) socket_.reset();
}

bool BusLink::connectTo(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, path.data(), path.size());
  socket_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  return socket_ && ::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool BusLink::authenticate(Deadline deadline) {
  // The zero byte carries the credentials (D-Bus's authentication protocol).
  const std::string begin = std::string(1, '\0') + "AUTH EXTERNAL " + hex(std::to_string(::geteuid())) + "\r\n";
  if (!sendAll(begin)) return false;
  while (received_.find("\r\n") == std::string::npos) {
    if (received_.size() > kMaxLine || !readMore(deadline, -1)) return false;
  }
  const bool isAccepted = received_.starts_with("OK ") && received_.ends_with("\r\n");
  received_.clear();
  return isAccepted && sendAll("BEGIN\r\n");
}

bool BusLink::sendAll(std::string_view bytes) {
  while (socket_ && !bytes.empty()) {
    const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) socket_.reset();
    if (sent > 0) bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return static_cast<bool>(socket_);
}

bool BusLink::readMore(std::optional<Deadline> deadline, int wake) {
  while (socket_) {
    // A negative descriptor is passed over.
    std::array<pollfd, 2> watched{pollfd{socket_.get(), POLLIN, 0}, pollfd{wake, POLLIN, 0}};
    const int ready = ::poll(watched.data(), watched.size(), pollTime(deadline));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0 || watched[1].revents != 0) return false;
    std::array<char, 4096> piece;
    const ssize_t got = ::recv(socket_.get(), piece.data(), piece.size(), 0);
    if (got < 0 && errno == EINTR) continue;
    if (got > 0) {
      received_.append(piece.data(), static_cast<std::size_t>(got));
      return true;
    }
    socket_.reset();
  }
  return false;
}

std::uint32_t BusLink::send(BusMessage message) {
  message.serial = ++lastSerial_;
  return sendAll(written(message)) ? message.serial : 0;
}

std::optional<BusMessage> BusLink::receive(std::optional<Deadline> deadline, int wake) {
  while (true) {
    if (received_.size() >= kBusPrefix) {
      const auto length = messageLength(std::string_view(received_).substr(0, kBusPrefix));
      if (!length) {
        // Nobody knows where the next one begins.
        socket_.reset();
        return std::nullopt;
      }
      if (received_.size() >= *length) {
        auto message = readMessage(std::string_view(received_).substr(0, *length));
        received_.erase(0, *length);
        if (message) return message;
        continue;
      }
    }
    if (!readMore(deadline, wake)) return std::nullopt;
  }
}

std::optional<BusMessage> BusLink::call(BusMessage message, Deadline deadline) {
  const std::uint32_t serial = send(std::move(message));
  while (serial != 0) {
    auto answer = receive(deadline);
    if (!answer) break;
    const bool isAnswer = answer->kind == BusMessage::Kind::reply || answer->kind == BusMessage::Kind::error;
    if (isAnswer && answer->replySerial == serial) return answer;
  }
  return std::nullopt;
}

}  // namespace sorvane::platform
