#pragma once

#include <sys/types.h>

#include <array>
#include <memory>
#include <vector>

#include "agent/process_host.h"
#include "base/descriptor.h"
#include "base/open_descriptors.h"
#include "base/secret_text.h"

namespace sorvane::platform {

// What the application, the host process and a supervisor say to each other. All of it stays on this machine and within
// one build, so numbers travel in the machine's own form.

/// Supervisor to application, one of each in this order.
struct Started {
  int error;  ///< 0, or the errno that kept the command from starting
  int group;  ///< the command's process group
};
struct Ended {
  int status;  ///< as waitpid gives it
};

/// Seconds between the request to end and the end.
inline constexpr int kGraceSeconds = 2;

/// Everything in a launch message, as execve takes it.
struct Launch {
  base::SecretText text;  ///< what the pointers lead into
  std::vector<char*> words;
  std::vector<char*> environment;
  char* directory = nullptr;
};

// Of the application. Failures are LaunchError.

[[noreturn]] void failLaunch(int number);
base::SecretText launchMessage(const agent::LaunchSpec& spec);
/// Hands the supervisor's ends to the host process.
void sendDescriptors(int channel, int control, int output);
/// Sends the message to the supervisor at the other end of `control` and waits until the command has started.
std::unique_ptr<agent::HostedProcess> startSupervised(base::Descriptor control, base::Descriptor output,
                                                      const base::SecretText& message);

// Of the host process and the supervisors.

/// False when nothing more comes: the application is gone.
bool receiveDescriptors(int channel, std::array<int, 2>& descriptors);
/// False when the application went in the middle of it.
bool readLaunch(int control, Launch& launch);
/// Sends a Started or an Ended. The application may be gone; then nobody wants to know.
template <typename Message>
void tell(int control, const Message& message);

}  // namespace sorvane::platform
