// An approval's own cost over loopback: from the question put to a paired phone to its signed yes verified, the phone's
// signature included and no person. Beside it, in turns, the floor: two frames of the same sizes between two threads,
// with one signature made and one checked. Usage: phone_bench

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "phone/scripted_phone.h"

namespace sorvane::phone {
namespace {

using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr int kRounds = 40;
/// Below the frames that a link may send in a minute.
constexpr int kApprovalsOfLink = 50;
constexpr std::size_t kRequestFrame = 512, kAnswerFrame = 560;

const ApprovalDetails kDetails{ApprovalDetails::Kind::useEnvironment, "Run make deploy", "agent 7", "web", 3,
                               {{"development", "staging"}},          "staging"};

double since(std::chrono::steady_clock::time_point start) {
  return Milliseconds(std::chrono::steady_clock::now() - start).count();
}

/// One message to this end; the program ends when there is none.
Envelope taken(Connection& link) {
  auto message = link.receive();
  if (message) return std::move(*message);
  std::fprintf(stderr, "the link ended\n");
  std::exit(1);
}

/// The phone, on a thread of its own: says yes to everything it is asked.
void answerAll(Connection& link, const ScriptedPhone& phone) {
  for (int i = 0; i < kApprovalsOfLink; ++i) {
    const auto request = phone.channel().open<ApprovalRequest>(*taken(link).sealed);
    link.send(phone.sealed(phone.answerTo(request.value(), true)));
  }
}

std::vector<double> approvals(ApproverServer& server, std::uint16_t port, const ScriptedPhone& phone) {
  Connection link(port);
  link.send(phone.helloMessage(*taken(link).challenge));
  if (!taken(link).ok.value_or(false)) std::exit(1);
  std::thread answering([&] { answerAll(link, phone); });
  std::vector<double> times;
  for (int i = 0; i < kApprovalsOfLink; ++i) {
    const auto start = std::chrono::steady_clock::now();
    const auto answer = server.ask(kDetails, {});
    times.push_back(since(start));
    if (answer.is != Is::yes) std::fprintf(stderr, "no yes\n");
  }
  answering.join();
  return times;
}

void exactly(int socket, std::vector<char>& bytes) {
  std::size_t got = 0;
  while (got < bytes.size()) {
    const ssize_t more = ::recv(socket, bytes.data() + got, bytes.size() - got, 0);
    if (more <= 0) std::exit(1);
    got += static_cast<std::size_t>(more);
  }
}

/// Two connected sockets over loopback TCP.
std::array<base::Descriptor, 2> connectedPair() {
  const base::Descriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  base::Descriptor client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
      ::listen(listener.get(), 1) != 0 ||
      ::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
      ::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), size) != 0) {
    std::exit(1);
  }
  return {std::move(client), base::Descriptor(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC))};
}

std::vector<double> floorOf(const crypto::PresenceKey& key) {
  const auto ends = connectedPair();
  const Digest digest{};
  const base::Bytes message = presenceMessage(digest);
  std::thread answering([&] {
    std::vector<char> request(kRequestFrame), answer(kAnswerFrame);
    for (int i = 0; i < kApprovalsOfLink; ++i) {
      exactly(ends[1].get(), request);
      const base::Bytes signature = key.sign(message);
      answer[0] = static_cast<char>(signature.size());
      std::copy(signature.begin(), signature.end(), answer.begin() + 1);
      [[maybe_unused]] const auto sent = ::send(ends[1].get(), answer.data(), answer.size(), MSG_NOSIGNAL);
    }
  });
  std::vector<double> times;
  const std::vector<char> request(kRequestFrame);
  std::vector<char> answer(kAnswerFrame);
  for (int i = 0; i < kApprovalsOfLink; ++i) {
    const auto start = std::chrono::steady_clock::now();
    [[maybe_unused]] const auto sent = ::send(ends[0].get(), request.data(), request.size(), MSG_NOSIGNAL);
    exactly(ends[0].get(), answer);
    const auto* const signature = reinterpret_cast<const std::uint8_t*>(answer.data() + 1);
    if (!crypto::verifyPresence(key.publicKey(), message, {signature, static_cast<std::uint8_t>(answer[0])})) {
      std::fprintf(stderr, "not signed\n");
    }
    times.push_back(since(start));
  }
  answering.join();
  return times;
}

/// Of sorted times.
double quantile(const std::vector<double>& sorted, double at) {
  return sorted[static_cast<std::size_t>(at * static_cast<double>(sorted.size() - 1))];
}

int run() {
  MemoryRegistry registry;
  MemoryAnnouncer announcer;
  const base::SystemClock clock;
  ApproverServer server({registry, announcer, clock, "Desk"});
  server.open();
  const auto offer = server.beginPairing();
  std::string code = offer.code;
  std::erase(code, '-');
  std::optional<ScriptedPhone> phone;
  {
    Connection link(offer.port);
    const Envelope challenge = taken(link);
    phone.emplace("Pocket", *challenge.peerPublicKey);
    link.send(phone->pairMessage(*challenge.challenge, code));
    if (!taken(link).ok.value_or(false)) std::exit(1);
  }
  std::vector<double> own, floor;
  for (int i = 0; i < kRounds; ++i) {
    for (const double time : approvals(server, offer.port, *phone)) own.push_back(time);
    for (const double time : floorOf(phone->presence())) floor.push_back(time);
  }
  std::sort(own.begin(), own.end());
  std::sort(floor.begin(), floor.end());
  std::printf("approvals: %zu; milliseconds\n", own.size());
  std::printf("%-28s %8s %8s %8s\n", "", "median", "99 %", "worst");
  for (const auto& [name, times] : {std::pair("asked to verified", &own), std::pair("floor", &floor)}) {
    std::printf("%-28s %8.3f %8.3f %8.3f\n", name, quantile(*times, 0.5), quantile(*times, 0.99), times->back());
  }
  std::printf("ratio of the medians: %.2f (bound of the first: 3 ms)\n", quantile(own, 0.5) / quantile(floor, 0.5));
  return 0;
}

}  // namespace
}  // namespace sorvane::phone

int main() {
  return sorvane::phone::run();
}
