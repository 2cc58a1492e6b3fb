// The clients of proxy_bench.py: sends the same request over and over, a new connection each, and says how long answers
// took. Reads one JSON object a line: {"port","request","clients","calls"}: `calls` in all by so many clients at once.
// Answers with the times in microseconds from connecting to the first byte of the body and to the end of the answer,
// the wall time of all, the statuses, and for events that carry the instant of their sending how long each was on its
// way.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "base/descriptor.h"

namespace {

using Clock = std::chrono::steady_clock;
using Micros = std::chrono::duration<double, std::micro>;

struct Load {
  std::uint16_t port = 0;
  std::string request;
  int clients = 1, calls = 1;
};

struct Answer {
  std::string status;
  double firstByte = 0, whole = 0;
  std::vector<double> held;  ///< of each event
};

/// The events' instants as they come, also where one is split between two reads.
class Stamps {
 public:
  void read(std::string_view bytes, std::vector<double>& held) {
    const double now = Micros(Clock::now().time_since_epoch()).count();
    rest_ += bytes;
    std::size_t end = 0;
    for (std::size_t at = 0; (at = rest_.find("sent@", end)) != std::string::npos;) {
      const std::size_t stop = rest_.find(' ', at);
      if (stop == std::string::npos) break;
      std::int64_t sent = 0;
      std::from_chars(rest_.data() + at + 5, rest_.data() + stop, sent);
      held.push_back(now - static_cast<double>(sent) / 1000);
      end = stop;
    }
    // What may be the beginning of an instant stays.
    rest_.erase(0, std::max(end, rest_.size() > 64 ? rest_.size() - 64 : 0));
  }

 private:
  std::string rest_;
};

Answer call(const Load& load) {
  Answer answer;
  const auto began = Clock::now();
  const sorvane::base::Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(load.port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::send(socket.get(), load.request.data(), load.request.size(), MSG_NOSIGNAL) !=
          static_cast<ssize_t>(load.request.size())) {
    answer.status = "none";
    return answer;
  }
  std::string head;
  bool inBody = false;
  Stamps stamps;
  char buffer[65'536];
  for (ssize_t got; (got = ::recv(socket.get(), buffer, sizeof buffer, 0)) > 0;) {
    std::string_view bytes(buffer, static_cast<std::size_t>(got));
    const double now = Micros(Clock::now() - began).count();
    answer.whole = now;
    if (!inBody) {
      head += bytes;
      const std::size_t end = head.find("\r\n\r\n");
      if (end == std::string::npos || end + 4 == head.size()) continue;
      inBody = true;
      answer.firstByte = now;
      stamps.read(std::string_view(head).substr(end + 4), answer.held);
      continue;
    }
    stamps.read(bytes, answer.held);
  }
  answer.status = head.size() > 12 ? head.substr(9, 3) : "none";
  return answer;
}

nlohmann::json run(const Load& load) {
  std::vector<std::vector<Answer>> answers(static_cast<std::size_t>(load.clients));
  std::atomic<int> left = load.calls;
  const auto began = Clock::now();
  {
    std::vector<std::jthread> threads;
    for (auto& mine : answers) {
      threads.emplace_back([&mine, &left, &load] {
        while (left.fetch_sub(1) > 0) mine.push_back(call(load));
      });
    }
  }
  nlohmann::json told{{"seconds", Micros(Clock::now() - began).count() / 1e6}, {"statuses", nlohmann::json::object()}};
  for (const auto& mine : answers) {
    for (const Answer& answer : mine) {
      told["first"].push_back(answer.firstByte);
      told["whole"].push_back(answer.whole);
      for (const double held : answer.held) told["held"].push_back(held);
      told["statuses"][answer.status] = told["statuses"].value(answer.status, 0) + 1;
    }
  }
  return told;
}

}  // namespace

int main() {
  for (std::string line; std::getline(std::cin, line);) {
    const auto asked = nlohmann::json::parse(line);
    std::cout << run({asked.at("port"), asked.at("request"), asked.at("clients"), asked.at("calls")}).dump()
              << std::endl;
  }
}
