#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>

#include "base/descriptor.h"
#include "support/doubles.h"

namespace sorvane::test {

/// A session bus of the test's own, which starts no services. DBUS_SESSION_BUS_ADDRESS names it while it lives.
class PrivateBus {
 public:
  PrivateBus() {
    if (const char* address = std::getenv(kVariable)) earlier_ = address;
    std::ofstream(folder_.path() / "bus.conf")
        << "<busconfig><type>session</type><listen>" << address() << "</listen><auth>EXTERNAL</auth>"
        << "<policy context='default'><allow send_destination='*' eavesdrop='true'/><allow eavesdrop='true'/><allow "
           "own='*'/></policy></busconfig>";
    ::setenv(kVariable, address().c_str(), 1);
    start();
  }
  ~PrivateBus() {
    stop();
    earlier_ ? ::setenv(kVariable, earlier_->c_str(), 1) : ::unsetenv(kVariable);
  }
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  bool isRunning() const { return pid_ > 0; }
  std::string address() const { return "unix:path=" + (folder_.path() / "bus").string(); }

  /// Returns once the bus accepts connections; not running where dbus-daemon is not installed.
  void start() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    const base::Descriptor in(ends[0]);
    base::Descriptor out(ends[1]);
    const std::string config = "--config-file=" + (folder_.path() / "bus.conf").string();
    const std::string print = "--print-address=" + std::to_string(ends[1]);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::fcntl(ends[1], F_SETFD, 0);
      ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
      ::execlp("dbus-daemon", "dbus-daemon", config.c_str(), "--nofork", "--nopidfile", print.c_str(), nullptr);
      ::_exit(127);
    }
    out.reset();
    char byte = 0;
    if (::read(in.get(), &byte, 1) != 1) stop();
  }
  void stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = 0;
    std::error_code ignored;
    std::filesystem::remove(folder_.path() / "bus", ignored);
  }

 private:
  static constexpr const char* kVariable = "DBUS_SESSION_BUS_ADDRESS";
  TemporaryFolder folder_;
  std::optional<std::string> earlier_;
  pid_t pid_ = 0;
};

}  // namespace sorvane::test
