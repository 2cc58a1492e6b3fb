#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <string>

#include "base/descriptor.h"

namespace sorvane::test {

/// A pseudo-terminal with a person of the account in front.
class Desk {
 public:
  Desk() : master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    if (::grantpt(master_.get()) != 0 || ::unlockpt(master_.get()) != 0) std::abort();
    path_ = ::ptsname(master_.get());
    // Kept open, so that the terminal lives between two questions.
    own_.reset(::open(path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
  }
  std::string giveTo(uid_t uid) const { return ::chown(path_.c_str(), uid, 65534) == 0 ? path_ : std::string(); }
  void type(const std::string& keys) {
    ASSERT_EQ(::write(master_.get(), keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }
  /// Everything shown up to `text`.
  std::string readTo(const std::string& text) {
    std::string shown;
    for (char c = 0; !shown.ends_with(text) && ::read(master_.get(), &c, 1) == 1;) shown += c;
    return shown;
  }
  /// Bytes that were shown and not read yet.
  int waiting() const {
    int bytes = -1;
    ::ioctl(master_.get(), FIONREAD, &bytes);
    return bytes;
  }
  bool echoes() const {
    termios mode{};
    return ::tcgetattr(own_.get(), &mode) == 0 && (mode.c_lflag & ECHO) != 0 && (mode.c_lflag & ICANON) != 0;
  }

 private:
  base::Descriptor master_, own_;
  std::string path_;
};

}  // namespace sorvane::test
