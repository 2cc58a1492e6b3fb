#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>

#include "agent/client.h"
#include "base/descriptor.h"
#include "cli/mcp_server.h"
#include "support/doubles.h"

namespace sorvane::test {

using nlohmann::json;

inline constexpr int kPatience = 20'000;  // milliseconds

/// One connection to the stand-in, whose answer the test gives when it likes.
struct Asked {
  base::Descriptor socket;
  json request;

  void answer(const json& response) {
    const std::string text = response.is_string() ? response.get<std::string>() : response.dump();
    EXPECT_EQ(::send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    socket.reset();
  }
  /// Waits until the client has closed the connection altogether.
  bool isWithdrawn() const {
    pollfd wait{socket.get(), 0, 0};
    return ::poll(&wait, 1, kPatience) == 1 && (wait.revents & POLLHUP) != 0;
  }
};

/// A stand-in for sorvaned.
class StandIn {
 public:
  explicit StandIn(const std::filesystem::path& folder, const std::string& name = "agent.sock")
      : path_((folder / name).string()) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
    listener_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_.get(), 32) != 0) {
      throw std::runtime_error("no socket");
    }
    agent::AgentInfo info{path_, base::SecretText("controller-token"), {}};
    std::ofstream(folder / "agent.json") << agent::encodeInfo(info).view();
  }

  const std::string& path() const { return path_; }
  /// The next connection, its request read.
  Asked next() {
    pollfd wait{listener_.get(), POLLIN, 0};
    if (::poll(&wait, 1, kPatience) != 1) throw std::runtime_error("nobody asked");
    Asked asked{base::Descriptor(::accept(listener_.get(), nullptr, nullptr)), {}};
    std::string text;
    char piece[4096];
    for (ssize_t got; (got = ::read(asked.socket.get(), piece, sizeof piece)) > 0;)
      text.append(piece, static_cast<std::size_t>(got));
    asked.request = json::parse(text);
    return asked;
  }

 private:
  const std::string path_;
  base::Descriptor listener_;
};

/// The server in this process, before a stand-in.
class McpHouse : public ::testing::Test {
 protected:
  void start(cli::mcp::McpServer::Settings settings = {}) {
    settings.version = "1.2.3";
    server_.reset();
    server_.emplace(
        std::move(settings),
        [this](agent::AgentRequest request, const std::stop_token& withdrawal) {
          request.token = base::SecretText("made-up-token");
          return agent::exchange(sorvaned_.path(), request, withdrawal);
        },
        [this](std::string_view line) {
          const std::scoped_lock lock(mutex_);
          lines_.emplace_back(line);
          told_.notify_all();
        });
  }
  void sayLine(std::string_view line) {
    cli::mcp::LineDecoder::Line one;
    one.text.append(line);
    server_->handle(one);
  }
  void say(const json& message) { sayLine(message.dump()); }
  void call(const json& id, const char* tool, const json& arguments = json::object(), const json& meta = nullptr) {
    json params{{"name", tool}, {"arguments", arguments}};
    if (!meta.is_null()) params["_meta"] = meta;
    say({{"jsonrpc", "2.0"}, {"id", id}, {"method", "tools/call"}, {"params", params}});
  }
  /// The next line of the server.
  json heard() {
    std::unique_lock lock(mutex_);
    if (!told_.wait_for(lock, std::chrono::milliseconds(kPatience), [this] { return !lines_.empty(); }))
      throw std::runtime_error("the server said nothing");
    const std::string line = std::move(lines_.front());
    lines_.pop_front();
    EXPECT_EQ(line.find('\n'), line.size() - 1) << "one message, one line";
    return json::parse(line);
  }
  json ask(const char* method, const json& params = json::object()) {
    say({{"jsonrpc", "2.0"}, {"id", "q"}, {"method", method}, {"params", params}});
    return heard();
  }

  TemporaryFolder folder_;
  StandIn sorvaned_{folder_.path()};
  std::mutex mutex_;
  std::condition_variable told_;
  std::deque<std::string> lines_;
  std::optional<cli::mcp::McpServer> server_;
};

}  // namespace sorvane::test
