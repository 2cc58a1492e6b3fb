#include "agent/client.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "base/descriptor.h"
#include "base/files.h"
#include "base/lock_file.h"
#include "base/lock_holder.h"
#include "base/open_descriptors.h"
#include "base/support_folder.h"
#include "base/system.h"

namespace sorvane::agent {
namespace {

constexpr std::uint64_t kMaxEndpointBytes = 64 * 1024;
constexpr suseconds_t kLookForWithdrawalMicroseconds = 200'000;

[[noreturn]] void unavailable(const std::string& what) {
  throw ClientError(ClientError::Case::unavailable, what + " Start sorvaned and try again.");
}

[[noreturn]] void withdrawn() {
  throw ClientError(ClientError::Case::withdrawn, "The request was withdrawn before it was answered.");
}

void waitForConnections(int socket, suseconds_t microseconds) {
  const timeval limit{0, microseconds};
  ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

base::Descriptor connectTo(const std::string& path, const std::stop_token& withdrawal) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() + 1 > base::maxSocketPath()) unavailable("The socket path " + path + " is too long for the system.");
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  base::Descriptor socket = base::openSocket(AF_UNIX, SOCK_STREAM);
  if (!socket) unavailable("No socket could be made.");
  // A full queue makes the connection wait, and nothing but time ends that wait.
  if (withdrawal.stop_possible()) waitForConnections(socket.get(), kLookForWithdrawalMicroseconds);
  while (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    if (withdrawal.stop_requested()) withdrawn();
    if (errno != EINTR && errno != EAGAIN) unavailable("sorvaned is not running for this support folder.");
  }
  if (withdrawal.stop_possible()) waitForConnections(socket.get(), 0);
  const auto peer = base::peerCredentials(socket.get());
  if (!peer || peer->uid != ::geteuid()) {
    throw ClientError(ClientError::Case::unavailable,
                      "The program at " + path +
                          " belongs to another user, so nothing was sent to it. Check who "
                          "can write to the support folder.");
  }
  return socket;
}

void send(int socket, std::string_view text) {
  while (!text.empty()) {
    const ssize_t sent = ::send(socket, text.data(), text.size(), base::quietSend());
    if (sent < 0 && errno == EINTR) continue;
    // The server may answer and close before it has read everything ("request too large"): its answer is what counts.
    if (sent < 0) return;
    text.remove_prefix(static_cast<std::size_t>(sent));
  }
}

base::SecretText receive(int socket) {
  base::SecretText answer;
  std::array<char, 16384> piece;
  for (;;) {
    const ssize_t got = ::recv(socket, piece.data(), piece.size(), 0);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) break;
    if (got == 0) break;
    answer.append({piece.data(), static_cast<std::size_t>(got)});
  }
  base::wipe(piece.data(), piece.size());
  return answer;
}

[[noreturn]] void notUnderstood() {
  throw ClientError(ClientError::Case::badAnswer, "sorvaned sent an answer that this program does not understand.");
}

/// A passphrase goes to the process that holds the folder's lock file alone: another program of this user may have put
/// its own socket in the place of sorvaned's.
void requireLockHolder(int socket, const std::filesystem::path& supportFolder) {
  const auto peer = base::peerCredentials(socket);
  const auto holder = base::LockFile::holder(supportFolder / base::kLockName);
  if (peer && peer->pid > 0 && holder == peer->pid) {
    if (base::isTrustedHolder(peer->pid)) return;
    throw ClientError(ClientError::Case::unavailable,
                      "The program with process id " + std::to_string(peer->pid) + " that answers at " +
                          (supportFolder / base::kOwnerSocketName).string() +
                          " could not be verified to be the sorvaned that was installed together with this sorvane, "
                          "so the passphrase was not sent to it. Quit it, start that sorvaned and try again.");
  }
  const std::string who = peer && peer->pid > 0 ? " with process id " + std::to_string(peer->pid) : "";
  throw ClientError(ClientError::Case::unavailable,
                    "The program" + who + " that answers at " + (supportFolder / base::kOwnerSocketName).string() +
                        " does not hold " + std::string(base::kLockName) +
                        " of that folder as sorvaned does, so the passphrase was not sent to it. Find out what it is "
                        "and stop it, then restart sorvaned and try again.");
}

/// What came back for one encoded request; empty when the peer closed the connection.
base::SecretText exchanged(const base::Descriptor& socket, const base::SecretText& request,
                           const std::stop_token& withdrawal) {
  // Ends a send or a receive that waits. The callback is gone before the descriptor is closed, so it never names
  // another file.
  const std::stop_callback close(withdrawal, [&socket] { ::shutdown(socket.get(), SHUT_RDWR); });
  send(socket.get(), request.view());
  ::shutdown(socket.get(), SHUT_WR);
  base::SecretText answer = receive(socket.get());
  if (withdrawal.stop_requested()) withdrawn();
  return answer;
}

}  // namespace

void stateCapabilities(AgentRequest& request) {
  constexpr std::array kMayStandIn{AgentOp::renderEnv, AgentOp::runEnv, AgentOp::beginTaskSession,
                                   AgentOp::taskSessionEnv};
  if (std::find(kMayStandIn.begin(), kMayStandIn.end(), request.op) == kMayStandIn.end()) return;
  request.payload["client"] = kHelperCapabilities;
}

AgentInfo readEndpoint(const std::filesystem::path& supportFolder) {
  std::optional<base::Files::Contents> contents;
  try {
    contents = base::SystemFiles().read(supportFolder / base::kEndpointName, kMaxEndpointBytes);
  } catch (const base::FileError& error) {
    unavailable(error.sentence() + ".");
  }
  if (!contents) unavailable("sorvaned is not running for the support folder " + supportFolder.string() + ".");
  auto info = decodeInfo(base::textOf(contents->bytes));
  base::wipe(contents->bytes.data(), contents->bytes.size());
  if (!info) unavailable("The endpoint file in " + supportFolder.string() + " is damaged.");
  return std::move(*info);
}

AgentResponse exchange(const std::string& socketPath, const AgentRequest& request) {
  return exchange(socketPath, request, {});
}

AgentResponse exchange(const std::string& socketPath, const AgentRequest& request, const std::stop_token& withdrawal) {
  const base::SecretText answer = exchanged(connectTo(socketPath, withdrawal), encodeRequest(request), withdrawal);
  if (answer.empty()) {
    throw ClientError(ClientError::Case::badAnswer,
                      "sorvaned closed the connection without an answer, so nothing was shared. Try again.");
  }
  auto response = decodeResponse(answer.view());
  if (!response) notUnderstood();
  return std::move(*response);
}

OwnerAnswer askOwner(const std::filesystem::path& supportFolder, const OwnerRequest& request,
                     const std::stop_token& withdrawal) {
  const std::string path = (supportFolder / base::kOwnerSocketName).string();
  const base::Descriptor socket = connectTo(path, withdrawal);
  if (request.passphrase || request.newPassphrase || request.confirmation || request.recoveryKey) {
    requireLockHolder(socket.get(), supportFolder);
  }
  const base::SecretText text = exchanged(socket, encodeOwnerRequest(request), withdrawal);
  if (text.empty()) {
    throw ClientError(ClientError::Case::badAnswer,
                      "sorvaned closed the connection without an answer. See sorvane status for how it stands.");
  }
  auto answer = decodeOwnerAnswer(text.view());
  if (!answer) notUnderstood();
  return std::move(*answer);
}

}  // namespace sorvane::agent
