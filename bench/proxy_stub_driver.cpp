// A provider over TLS for proxy_bench.py. Prints its port and its authority as one JSON line and ends with its input. A
// request whose text holds "events=N rate=R" is streamed: N events, R a second, each with the instant of its sending;
// others get one small answer.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "support/tls_stub.h"

namespace {

using Clock = std::chrono::steady_clock;
using sorvane::test::chunk;
using sorvane::test::TlsStub;

constexpr char kAnswer[] =
    R"({"id":"chatcmpl-made-up","object":"chat.completion","created":1795000000,"model":"gpt-5.4","choices":[{"index":0,)"
    R"("message":{"role":"assistant","content":"A made-up answer of a usual small size, as a tool's caller gets it."},)"
    R"("finish_reason":"stop"}],"usage":{"prompt_tokens":20,"completion_tokens":12,"total_tokens":32}})";

std::string event(const std::string& content) {
  return R"(data: {"id":"chatcmpl-made-up","object":"chat.completion.chunk","created":1795000000,"model":"gpt-5.4",)"
         R"("choices":[{"index":0,"delta":{"content":")" +
         content + "\"},\"finish_reason\":null}]}\n\n";
}

long numberAfter(const std::string& text, const char* word) {
  const std::size_t at = text.find(word);
  return at == std::string::npos ? 0 : std::atol(text.c_str() + at + std::char_traits<char>::length(word));
}

bool stream(TlsStub::Connection& connection, long events, long rate) {
  if (!connection.send(sorvane::test::kStreamHead)) return false;
  const auto began = Clock::now();
  for (long i = 0; i < events; ++i) {
    std::this_thread::sleep_until(began + i * std::chrono::nanoseconds(1'000'000'000 / rate));
    const std::string stamp = std::to_string(Clock::now().time_since_epoch().count());
    if (!connection.send(chunk(event("sent@" + stamp + ' ')))) return false;
  }
  const std::string usage =
      "data: {\"id\":\"chatcmpl-made-up\",\"object\":\"chat.completion.chunk\",\"choices\":[],"
      "\"usage\":{\"prompt_tokens\":20,\"completion_tokens\":" +
      std::to_string(std::min(events, 300L)) + ",\"total_tokens\":0}}\n\n";
  return connection.send(chunk(usage) + chunk("data: [DONE]\n\n") + "0\r\n\r\n");
}

void serve(TlsStub::Connection& connection) {
  const std::string answer = sorvane::test::jsonAnswer(kAnswer);
  while (const auto request = connection.next()) {
    const long rate = numberAfter(request->body, "rate=");
    if (rate > 0 ? !stream(connection, numberAfter(request->body, "events="), rate) : !connection.send(answer)) return;
  }
}

}  // namespace

int main() {
  TlsStub stub(serve);
  std::cout << nlohmann::json{{"port", stub.port()}, {"authority", stub.authorityPem()}}.dump() << std::endl;
  while (std::getchar() != EOF) {
  }
  std::cout << nlohmann::json{{"connections", stub.connections()}, {"requests", stub.requests()}}.dump() << std::endl;
}
