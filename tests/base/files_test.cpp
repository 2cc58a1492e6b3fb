#include "base/files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>

#include "base/support_folder.h"
#include "base/system.h"
#include "support/doubles.h"

namespace sorvane::base {
namespace {

namespace fs = std::filesystem;

std::string contentsOf(const fs::path& path) {
  const auto contents = SystemFiles().read(path);
  return contents ? std::string(textOf(contents->bytes)) : "(none)";
}

mode_t modeOf(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

/// Runs `check` in a child as user and group 65534, since root may do everything; its answer is the result.
bool asOrdinaryUser(const std::function<bool()>& check) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(2);
    ::_exit(check() ? 0 : 1);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(SystemFiles, replacesAFileAsAWholeWithOwnerOnlyMode) {
  const test::TemporaryFolder folder;
  SystemFiles files;
  const fs::path path = folder.path() / "a.json";
  std::ofstream(path) << "old";
  ::chmod(path.c_str(), 0644);
  const FileIdentity first = files.writeAtomically(path, bytesOf("new"));
  EXPECT_EQ(contentsOf(path), "new");
  EXPECT_EQ(modeOf(path), 0600U);
  EXPECT_EQ(files.identity(path), first);
  EXPECT_FALSE(files.writeAtomically(path, bytesOf("new")) == first);
  EXPECT_EQ(files.list(folder.path()), std::vector<std::string>{"a.json"});
}

TEST(SystemFiles, neverFollowsALinkOrOpensWhatIsNoFile) {
  const test::TemporaryFolder folder;
  SystemFiles files;
  std::ofstream(folder.path() / "target") << "kept";
  fs::create_symlink(folder.path() / "target", folder.path() / "link");
  ASSERT_EQ(::mkfifo((folder.path() / "pipe").c_str(), 0600), 0);
  for (const char* name : {"link", "pipe", "."}) {
    EXPECT_THROW(files.read(folder.path() / name), FileError) << name;
    EXPECT_THROW(files.append(folder.path() / name, bytesOf("x")), FileError) << name;
    EXPECT_THROW(files.identity(folder.path() / name), FileError) << name;
  }
  files.writeAtomically(folder.path() / "link", bytesOf("mine"));
  EXPECT_EQ(contentsOf(folder.path() / "target"), "kept");
  EXPECT_FALSE(fs::is_symlink(folder.path() / "link"));
}

TEST(SystemFiles, appendsAndTellsMissingFromBroken) {
  const test::TemporaryFolder folder;
  SystemFiles files;
  const fs::path log = folder.path() / "log";
  files.append(log, bytesOf("one\n"));
  files.append(log, bytesOf("two\n"));
  EXPECT_EQ(contentsOf(log), "one\ntwo\n");
  EXPECT_EQ(modeOf(log), 0600U);
  EXPECT_EQ(files.read(folder.path() / "none"), std::nullopt);
  EXPECT_EQ(files.identity(folder.path() / "none"), std::nullopt);
  EXPECT_TRUE(files.list(folder.path() / "none").empty());
  EXPECT_NO_THROW(files.remove(folder.path() / "none"));
  EXPECT_THROW(files.read(log, 3), FileError);
  EXPECT_THROW(files.writeAtomically(folder.path() / "no" / "file", bytesOf("x")), FileError);
}

TEST(SystemFiles, aRefusedWriteLeavesTheOldFileAndNothingElse) {
  const test::TemporaryFolder folder;
  const fs::path path = folder.path() / "a";
  std::ofstream(path) << "old";
  ::chmod(path.c_str(), 0666);
  const auto writes = [&] {
    try {
      SystemFiles().writeAtomically(path, bytesOf("new"));
      return true;
    } catch (const FileError&) {
      return false;
    }
  };
  ::chmod(folder.path().c_str(), 0755);
  EXPECT_FALSE(asOrdinaryUser(writes));
  EXPECT_EQ(contentsOf(path), "old");
  EXPECT_EQ(SystemFiles().list(folder.path()).size(), 1U);
  ::chmod(folder.path().c_str(), 0777);
  EXPECT_TRUE(asOrdinaryUser(writes)) << "the control: the same user may write once the folder allows it";
}

TEST(SupportFolder, refusesAFolderThatIsNotTheUsersAlone) {
  const test::TemporaryFolder parent;
  const auto sentence = [](const fs::path& folder) -> std::string {
    try {
      checkSupportFolder(folder, WhenMissing::refuse);
      return "";
    } catch (const SupportFolderError& error) {
      return error.sentence();
    }
  };
  const fs::path folder = parent.path() / "s";
  EXPECT_NE(sentence(folder).find("Start sorvaned first."), std::string::npos);
  checkSupportFolder(folder, WhenMissing::make);
  EXPECT_EQ(modeOf(folder), 0700U);
  EXPECT_EQ(sentence(folder), "");
  for (const mode_t mode : {0720U, 0702U, 0777U}) {
    ::chmod(folder.c_str(), mode);
    EXPECT_NE(sentence(folder).find("can be written by other users"), std::string::npos) << mode;
  }
  ::chmod(folder.c_str(), 0755);
  EXPECT_EQ(sentence(folder), "");
  fs::create_symlink(folder, parent.path() / "l");
  EXPECT_NE(sentence(parent.path() / "l").find("is a link"), std::string::npos);
  const fs::path deep = parent.path() / std::string(100, 'd');
  checkSupportFolder(folder, WhenMissing::refuse);
  fs::create_directory(deep);
  EXPECT_NE(sentence(deep).find("the system allows at most " + std::to_string(maxSocketPath() - 1)), std::string::npos);
  if (::geteuid() == 0) {
    ::chmod(parent.path().c_str(), 0755);
    EXPECT_TRUE(asOrdinaryUser([&] { return sentence(folder).find("belongs to another user") != std::string::npos; }));
  }
}

}  // namespace
}  // namespace sorvane::base
