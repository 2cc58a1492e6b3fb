// The round trip of listEnvironments with 10 environments over the real socket of a running sorvaned, against an echo
// server of one thread a connection that answers as many bytes; both taken in turn, by 1 client and by 16 at once.
// Usage: socket_bench (sorvaned is looked for beside the build folder of this program).

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "agent/client.h"
#include "base/descriptor.h"
#include "support/doubles.h"

namespace sorvane {
namespace {

using Microseconds = std::chrono::duration<double, std::micro>;

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

/// The floor: reads to the end of the stream and answers `answer`.
void echo(const std::string& path, const std::string& answer) {
  const base::Descriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = addressOf(path);
  if (::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener.get(), 128) != 0) {
    std::exit(1);
  }
  for (;;) {
    const int client = ::accept(listener.get(), nullptr, nullptr);
    if (client < 0) continue;
    std::thread([client, &answer] {
      const base::Descriptor socket(client);
      char piece[8192];
      while (::read(socket.get(), piece, sizeof piece) > 0) {
      }
      [[maybe_unused]] const auto sent = ::send(socket.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
    }).detach();
  }
}

double exchangeOnce(const std::string& path, std::string_view request) {
  const auto start = std::chrono::steady_clock::now();
  const base::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = addressOf(path);
  while (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    std::this_thread::yield();
  [[maybe_unused]] const auto sent = ::send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL);
  ::shutdown(socket.get(), SHUT_WR);
  char piece[8192];
  std::size_t got = 0;
  for (ssize_t part; (part = ::read(socket.get(), piece, sizeof piece)) > 0;) got += static_cast<std::size_t>(part);
  if (got < 10) std::fprintf(stderr, "an empty answer\n");
  return Microseconds(std::chrono::steady_clock::now() - start).count();
}

std::vector<double> round(const std::string& path, std::string_view request, int clients, int each) {
  std::vector<std::vector<double>> times(static_cast<std::size_t>(clients));
  std::vector<std::thread> threads;
  for (auto& own : times) {
    threads.emplace_back([&] {
      for (int i = 0; i < each; ++i) own.push_back(exchangeOnce(path, request));
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::vector<double> all;
  for (const auto& own : times) all.insert(all.end(), own.begin(), own.end());
  return all;
}

double median(std::vector<double>& times) {
  std::nth_element(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2), times.end());
  return times[times.size() / 2];
}

int run() {
  const auto program = std::filesystem::canonical("/proc/self/exe").parent_path().parent_path() / "sorvaned";
  test::TemporaryFolder folder;
  const std::string support = (folder.path() / "s").string();
  const pid_t child = ::fork();
  if (child == 0) {
    ::setsid();
    const int nothing = ::open("/dev/null", O_RDWR);
    if (::dup2(nothing, 0) < 0 || ::dup2(nothing, 2) < 0) ::_exit(126);
    ::execl(program.c_str(), "sorvaned", "--support-dir", support.c_str(), nullptr);
    ::_exit(127);
  }
  const auto info = [&] {
    for (;;) {
      try {
        return agent::readEndpoint(support);
      } catch (const agent::ClientError&) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    }
  }();
  for (int i = 0; i < 10; ++i) {
    agent::AgentRequest add;
    add.token = info.token.clone();
    add.op = agent::AgentOp::manageVault;
    add.payload = {{"action", "environmentAdd"}, {"name", "Environment " + std::to_string(i)}};
    agent::exchange(info.socketPath, add);
  }
  agent::AgentRequest list;
  list.token = info.token.clone();
  const base::SecretText request = agent::encodeRequest(list);
  const base::SecretText answer = agent::encodeResponse(agent::exchange(info.socketPath, list));
  const std::string floorPath = (folder.path() / "echo").string(), floorAnswer(answer.view());
  std::thread([&] { echo(floorPath, floorAnswer); }).detach();
  for (const int clients : {1, 16}) {
    std::vector<double> ours, floor;
    const int each = 400 / clients;
    for (int turn = 0; turn < 12; ++turn) {
      const auto a = round(floorPath, request.view(), clients, each),
                 b = round(info.socketPath, request.view(), clients, each);
      floor.insert(floor.end(), a.begin(), a.end());
      ours.insert(ours.end(), b.begin(), b.end());
    }
    const double o = median(ours), f = median(floor);
    std::printf("%2d clients: sorvaned %7.1f us, echo %7.1f us, ratio %.2f\n", clients, o, f, o / f);
  }
  std::fflush(stdout);
  ::kill(child, SIGTERM);
  ::waitpid(child, nullptr, 0);
  std::filesystem::remove_all(folder.path());
  ::_exit(0);  // the echo server's thread never ends
}

}  // namespace
}  // namespace sorvane

int main() {
  return sorvane::run();
}
