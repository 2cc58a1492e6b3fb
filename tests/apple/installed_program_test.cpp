#include "platform/macos/installed_program.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace sorvane::platform {
namespace {

TEST(InstalledProgram, isTheApplicationBesideThisProgramAndNoOther) {
  struct Case {
    const char *own, *peer;
    bool isInstalled;
  };
  for (const Case& c : {
           Case{"/opt/bin/sorvane", "/opt/Applications/sorvaned.app/Contents/MacOS/sorvaned", true},
           {"/build/sorvane", "/build/sorvaned.app/Contents/MacOS/sorvaned", true},
           {"/A/sorvaned.app/Contents/MacOS/sorvane", "/A/sorvaned.app/Contents/MacOS/sorvaned", true},
           {"/opt/bin/sorvane", "/opt/bin/sorvane", false},
           {"/opt/bin/sorvane", "/tmp/sorvaned", false},
           {"/opt/bin/sorvane", "/tmp/opt/Applications/sorvaned.app/Contents/MacOS/sorvaned", false},
           {"/opt/bin/sorvane", "/opt/Applications/sorvaned.app/Contents/MacOS/sorvaned/../sorvane", false},
           // The system told nothing.
           {"/opt/bin/sorvane", "", false},
           {"", "sorvaned", false},
           {"", "", false},
       }) {
    EXPECT_EQ(isInstalledWith(c.own, c.peer), c.isInstalled) << c.own << " " << c.peer;
  }
}

TEST(InstalledProgram, theFileOfAProcessIsNamedAndOfOneThatIsGoneNone) {
  EXPECT_EQ(programOf(::getpid()), std::filesystem::read_symlink("/proc/self/exe"));
  EXPECT_EQ(programOf(5'000'000), std::filesystem::path());
}

}  // namespace
}  // namespace sorvane::platform
