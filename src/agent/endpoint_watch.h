#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>

namespace sorvane::agent {

/// How often the files of an endpoint are looked at.
inline constexpr std::chrono::milliseconds kWatchEvery{2000};

/// What a server says on standard error when it opens its endpoint anew.
inline constexpr std::string_view kListeningAgain =
    "the socket file was replaced or removed, or failed; listening again";

/// EndpointWatch has an endpoint's files looked at again and again, so that a server listens anew when another program
/// replaced or removed them. While the support folder itself is away it waits. Its thread is joined by the destructor.
class EndpointWatch {
 public:
  /// Mends what it finds, or tells why that failed. Called from the watch's thread.
  using Check = std::function<std::optional<std::string>()>;
  /// `component` names the server on standard error, where a failure is written once.
  EndpointWatch(std::string component, std::filesystem::path supportFolder, std::chrono::milliseconds every,
                Check check);

 private:
  void run(const std::stop_token& stop);
  void look(std::string& lastFailure);

  const std::string component_;
  const std::filesystem::path supportFolder_;
  const std::chrono::milliseconds every_;
  const Check check_;
  // The last member: it is stopped and joined before the others go.
  std::jthread thread_;
};

}  // namespace sorvane::agent
