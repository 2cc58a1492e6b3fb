#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "approver/browser.h"

namespace sorvane::approver {

/// Exit codes; the ones that sorvane has, too, mean the same there.
inline constexpr int kFailed = 1, kUsage = 2, kNotReached = 69, kDenied = 77, kConfiguration = 78;

struct Options {
  std::filesystem::path keys;
  std::optional<std::string> address;
  std::optional<int> passphraseFd;
  std::string link;
  std::string deviceName;  ///< empty: the host's
  bool once = false;       ///< `pair` ends when it has paired
  bool tell = false;       ///< `forget` tells the computer
};

// What the program does. Each returns an exit code, or throws base::Error with a sentence for the person. `browser` may
// be absent.

int pairDevice(const Options& options, Browser* browser);
int waitForQuestions(const Options& options, Browser* browser);
int showStatus(const Options& options);
int forgetPairing(const Options& options, Browser* browser);

}  // namespace sorvane::approver
