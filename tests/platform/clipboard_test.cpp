#include "platform/linux/clipboard.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "support/doubles.h"

namespace sorvane::test {
namespace {

using platform::SystemClipboard;

/// A session whose clipboard programs are scripts that keep the text in a file and note their arguments.
class SessionClipboard : public ::testing::Test {
 protected:
  SessionClipboard() {
    for (const char* name : {"PATH", "WAYLAND_DISPLAY", "DISPLAY"}) {
      const char* value = std::getenv(name);
      earlier_.emplace_back(name, value == nullptr ? std::optional<std::string>() : value);
      if (std::string(name) != "PATH") ::unsetenv(name);
    }
    ::setenv("PATH", (folder_.path().string() + ":/usr/bin:/bin").c_str(), 1);
  }
  ~SessionClipboard() override {
    for (const auto& [name, value] : earlier_) {
      value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str());
    }
  }
  void install(const std::string& name, const std::string& body) {
    const auto path = folder_.path() / name;
    std::ofstream(path) << "#!/bin/sh\ncd '" << folder_.path().string() << "'\necho \"" << name << " $*\" >>calls\n"
                        << body << "\n";
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
  }
  std::string file(const std::string& name) {
    std::ifstream stream(folder_.path() / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }
  std::string readText(SystemClipboard& clipboard) {
    const auto text = clipboard.read();
    return text ? std::string(text->view()) : "nothing";
  }
  TemporaryFolder folder_;

 private:
  std::vector<std::pair<std::string, std::optional<std::string>>> earlier_;
};

TEST_F(SessionClipboard, passesTextsThroughTheProgramsOfTheSessionAndNeverThroughArguments) {
  // Like the real ones, the writers leave a process behind that keeps what it was given open.
  const std::string keep = "cat >text\nsleep 3 &";
  install("wl-copy", "case \"$*\" in *--clear*) rm -f text;; *) " + keep + ";; esac");
  install("wl-paste", "exec cat text");
  install("xclip", "case \"$*\" in *-in*) " + keep + ";; *) exec cat text;; esac");
  SystemClipboard clipboard;
  EXPECT_FALSE(clipboard.available());
  EXPECT_FALSE(clipboard.write(base::SecretText("a made-up value")));
  for (const auto& [variable, program] : {std::pair{"DISPLAY", "xclip"}, {"WAYLAND_DISPLAY", "wl-copy"}}) {
    ::setenv(variable, "made-up", 1);
    std::filesystem::remove(folder_.path() / "calls");
    EXPECT_TRUE(clipboard.available());
    const std::string longText = std::string(300000, 'x') + " ’\n";
    for (const std::string& text : {std::string("a made-up value\n"), longText}) {
      EXPECT_TRUE(clipboard.write(base::SecretText(text)));
      EXPECT_EQ(readText(clipboard), text);
    }
    EXPECT_TRUE(clipboard.write(base::SecretText("")));
    EXPECT_EQ(readText(clipboard), "nothing");
    EXPECT_NE(file("calls").find(program), std::string::npos);
    EXPECT_EQ(file("calls").find("made-up"), std::string::npos);
  }
}

TEST_F(SessionClipboard, givesUpOnProgramsThatFailHangOrSendNoText) {
  ::setenv("DISPLAY", "made-up", 1);
  using namespace std::chrono_literals;
  const std::pair<std::string, std::chrono::milliseconds> bodies[] = {
      {"exit 1", 10s},
      {"cat >/dev/null; echo partly; exit 3", 10s},
      {"printf '\\377\\376'; exit 0", 10s},
      {"exec sleep 20", 50ms},
      {"exec cat /dev/zero", 10s},
  };
  const base::SecretText longText(std::string(1 << 20, 'x'));
  for (const auto& [body, patience] : bodies) {
    install("xclip", body);
    SystemClipboard clipboard(patience);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(readText(clipboard), "nothing") << body;
    if (body != "exec cat /dev/zero") {
      EXPECT_FALSE(clipboard.write(longText)) << body;
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 9s) << body;
  }
}

}  // namespace
}  // namespace sorvane::test
