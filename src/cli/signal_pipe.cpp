#include "cli/signal_pipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace sorvane::cli {
namespace {

// A handler has no other way to tell.
std::array<int, 2> ends{-1, -1};

void pass(int number, siginfo_t* info, void*) {
  const int before = errno;
  const std::array<char, 2> bytes{static_cast<char>(number), static_cast<char>(info->si_code <= 0 ? 1 : 0)};
  // Two bytes go in whole or not at all; a full pipe holds enough signals.
  [[maybe_unused]] const auto written = ::write(ends[1], bytes.data(), bytes.size());
  errno = before;
}

}  // namespace

SignalsBlocked::SignalsBlocked() {
  sigset_t all;
  sigfillset(&all);
  ::sigprocmask(SIG_SETMASK, &all, &before_);
}

void SignalsBlocked::release() {
  ::sigprocmask(SIG_SETMASK, &before_, nullptr);
}

SignalPipe::SignalPipe(std::initializer_list<int> numbers) {
  if (::pipe(ends.data()) == 0) {
    for (const int end : ends) {
      ::fcntl(end, F_SETFD, FD_CLOEXEC);
      ::fcntl(end, F_SETFL, O_NONBLOCK);
    }
  }
  const auto take = [this](int number, struct sigaction action) {
    ::sigaction(number, &action, &before_.emplace_back(number, action).second);
  };
  struct sigaction action {};
  action.sa_sigaction = pass;
  action.sa_flags = static_cast<int>(SA_SIGINFO | SA_RESTART);
  for (const int number : numbers) take(number, action);
  struct sigaction ignored {};
  ignored.sa_handler = SIG_IGN;
  take(SIGPIPE, ignored);
}

SignalPipe::~SignalPipe() {
  for (const auto& [number, action] : before_) ::sigaction(number, &action, nullptr);
  for (int& end : ends) {
    ::close(end);
    end = -1;
  }
}

int SignalPipe::descriptor() const {
  return ends[0];
}

std::optional<SignalPipe::Caught> SignalPipe::next() {
  std::array<char, 2> bytes;
  if (::read(ends[0], bytes.data(), bytes.size()) != 2) return std::nullopt;
  return Caught{bytes[0], bytes[1] != 0};
}

}  // namespace sorvane::cli
