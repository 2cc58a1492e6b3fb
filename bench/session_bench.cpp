// What 10,000 task sessions that come and go leave in memory, beside 31 that stay.

#include <fstream>
#include <iostream>
#include <string>

#include "agent/task_sessions.h"

namespace {

using namespace sorvane;

/// Private resident memory of this process in kB.
long resident() {
  std::ifstream file("/proc/self/smaps_rollup");
  long total = 0;
  for (std::string word; file >> word;) {
    long kilobytes = 0;
    if (word == "Private_Clean:" || word == "Private_Dirty:") {
      file >> kilobytes;
      total += kilobytes;
    }
  }
  return total;
}

agent::TaskSessions::NewSession fresh(const agent::TaskSessions& sessions) {
  agent::TaskSessions::NewSession session;
  session.owner = "a caller";
  session.client = "An agent";
  session.environment = "shop";
  session.durationSeconds = 3600;
  for (int i = 0; i < 20; ++i) session.snapshot.lines.emplace_back("VARIABLE=" + std::string(100, 'v'));
  session.epoch = sessions.epoch();
  session.audit = [](std::string_view) {};
  return session;
}

}  // namespace

int main() {
  const base::SystemClock clock;
  agent::TaskSessions sessions(clock);
  for (std::size_t i = 1; i < agent::kMaxSessions; ++i) sessions.begin(fresh(sessions));
  const auto cycle = [&](int times) {
    for (int i = 0; i < times; ++i) sessions.end(sessions.begin(fresh(sessions)).id, "a caller");
  };
  cycle(1000);
  const long before = resident();
  const auto start = std::chrono::steady_clock::now();
  cycle(10000);
  const std::chrono::duration<double, std::micro> taken = std::chrono::steady_clock::now() - start;
  std::cout << "10,000 sessions begun and ended: " << taken.count() / 10000 << " µs each; private memory " << before
            << " kB before, " << resident() << " kB after\n";
}
