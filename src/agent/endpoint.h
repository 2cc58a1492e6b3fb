#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>

#include "agent/protocol.h"
#include "base/descriptor.h"
#include "base/files.h"

namespace sorvane::agent {

/// Connections that the system may keep waiting for an accept.
inline constexpr int kListenBacklog = 16;

/// Which file a bound socket is; a replaced file differs.
struct SocketIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const SocketIdentity&) const = default;
};

/// A listening socket, or the sentence for standard error why there is none.
struct Listener {
  base::Descriptor socket;
  SocketIdentity identity;
  std::optional<std::string> failure;
};

/// Binds `path`, whatever file was there, and listens. The socket file has mode 0600 from its first moment on: the
/// process umask is 077 meanwhile.
Listener openListener(const std::filesystem::path& path);

/// The socket file at `path` now; nullopt when there is none or it is no socket.
std::optional<SocketIdentity> socketAt(const std::filesystem::path& path);

/// PublishedFile is "agent.json" as this process last wrote it. One thread at a time.
class PublishedFile {
 public:
  PublishedFile(base::Files& files, std::filesystem::path path) : files_(files), path_(std::move(path)) {}

  /// Writes the endpoint; false when that failed.
  bool publish(const AgentInfo& info);
  /// Whether the file is there with the bytes that were written.
  bool isIntact();
  /// Removes the file and forgets it.
  void withdraw();

 private:
  base::Files& files_;
  const std::filesystem::path path_;
  base::SecretText bytes_;
  std::optional<base::FileIdentity> identity_;
};

}  // namespace sorvane::agent
