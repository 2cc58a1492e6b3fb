#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <functional>
#include <iostream>
#include <memory>

#include "agent/terminal_approver.h"
#include "app/application.h"
#include "app/options.h"
#include "base/diagnostics.h"
#include "base/support_folder.h"
#include "base/system.h"
#include "crypto/key.h"
#include "platform/adapters.h"
#include "proxy/transport.h"

namespace {

using namespace sorvane;

/// The signals that stop the application, held back from every thread: main takes them when it waits.
sigset_t holdStopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, number);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  return signals;
}

/// The approver on the terminal that standard input stands for; nullptr when that is none.
std::unique_ptr<agent::TerminalApprover> terminalApprover() {
  if (::isatty(STDIN_FILENO) == 0) return nullptr;
  base::Descriptor input(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
  base::Descriptor output(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
  if (!input || !output) return nullptr;
  return std::make_unique<agent::TerminalApprover>(std::move(input), std::move(output));
}

/// Says on standard error why the application could not go on.
int reporting(const std::function<int()>& body) {
  try {
    return body();
  } catch (const base::FileError& error) {
    std::cerr << "sorvaned could not start: " << error.sentence()
              << ". Nothing was opened. Check that the support folder can be written to and that its disk has room.\n";
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
  }
  return 1;
}

/// From here on there may be a first thread that serves the system's own events.
int serve(const app::Options& options, agent::ProcessHost& host, const sigset_t& stopSignals) {
  const auto folder = base::supportFolder(options.supportFolder);
  base::checkSupportFolder(folder, base::WhenMissing::make);
  app::Application::Setting setting{folder, options.store, crypto::initialise().memoryIsLocked};
  const auto approver = terminalApprover();
  app::Application application(setting, host, approver.get());
  if (!application.start()) {
    std::cerr << "sorvaned could not open its socket in " << folder.string()
              << ", so nothing is served. Check that the folder can be written to and that its disk has room.\n";
    return 1;
  }
  base::diagnose("app", "ready, support folder " + folder.string());
  platform::tellServiceManager("READY=1");
  application.showLock();
  int number = 0;
  while (::sigwait(&stopSignals, &number) != 0) {
  }
  platform::tellServiceManager("STOPPING=1");
  base::diagnose("app", "stopping");
  return 0;
}

int run(const app::Options& options) {
  // Before any thread and any secret: the process that starts commands may be a copy of this one.
  const auto host = platform::makeProcessHost();
  // Nothing that the application makes is for others. Commands come from the host and keep the owner's own mask.
  ::umask(S_IRWXG | S_IRWXO);
  const sigset_t stopSignals = holdStopSignals();
  return platform::runWithMainLoop([&] { return serve(options, *host, stopSignals); });
}

}  // namespace

int main(int argc, char** argv) {
  base::hardenProcess();
  base::startWithoutLoaderVariables(argv);
  base::closeInheritedDescriptors();
  proxy::clearOutboundEnvironment();
  const auto options = app::parseOptions(argc, argv);
  if (const int* const code = std::get_if<int>(&options)) return *code;
  return reporting([&] { return run(std::get<app::Options>(options)); });
}
