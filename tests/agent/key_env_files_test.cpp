// Key files with a real Git and real work trees.

#include "agent/key_env_files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "agent/command_runner.h"
#include "platform/linux/process_host.h"
#include "support/doubles.h"

namespace sorvane::agent {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Case = KeyEnvFileError::Case;
using Worktree = KeyEnvFiles::GitWorktree;

using Kind = KeyEnvFiles::Key::Kind;

class KeyFiles : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directories(tree() / "ignored"); }
  fs::path tree() { return folder_.path() / "tree"; }
  fs::path records() { return folder_.path() / "key-files"; }
  void git(const std::string& words) {
    const std::string command = "cd " + tree().string() + " && git " + words + " >/dev/null 2>&1";
    ASSERT_EQ(std::system(command.c_str()), 0) << words;  // NOLINT: a test's own words
  }
  KeyEnvFiles& begin() {
    files_.reset();
    files_ = std::make_unique<KeyEnvFiles>(records(), system_, clock_, runner_,
                                           std::vector<std::string>{"PATH=/usr/bin:/bin", "HOME=/nonexistent"});
    return *files_;
  }
  TaskSessionInfo session(const std::string& id = "SESSION") {
    return {id, "Agent", "shop", clock_.now(), clock_.now() + 60s, {}, {}};
  }
  std::string written(const fs::path& path, const std::string& id = "SESSION") {
    std::vector<KeyEnvFiles::Key> keys;
    keys.push_back({"OPENAI_API_KEY", base::SecretText("sk-made-up key"), Kind::real});
    return files_->write(files_->place(path.string(), id, Worktree::allow), session(id), keys).path;
  }
  std::optional<Case> placeFails(const fs::path& path, Worktree worktree = Worktree::refuse) {
    try {
      files_->place(path.string(), "SESSION", worktree);
    } catch (const KeyEnvFileError& error) {
      return error.kind();
    }
    return std::nullopt;
  }

  test::TemporaryFolder folder_;
  base::SystemFiles system_;
  test::ManualClock clock_;
  platform::LinuxProcessHost host_;
  CommandRunner runner_{host_};
  std::unique_ptr<KeyEnvFiles> files_;
};

TEST_F(KeyFiles, aPathThatGitCouldCommitIsRefusedUnlessAllowed) {
  begin();
  EXPECT_EQ(placeFails(tree() / "a.env"), std::nullopt) << "no work tree yet";
  git("init -q");
  std::ofstream(tree() / ".gitignore") << "/ignored/\n";
  EXPECT_EQ(placeFails(tree() / "a.env"), Case::insideGitWorktree);
  EXPECT_EQ(placeFails(tree() / "ignored/a.env"), std::nullopt);
  const auto allowed = files_->place((tree() / "a.env").string(), "SESSION", Worktree::allow);
  EXPECT_EQ(allowed.warning, allowed.path + " is not in .gitignore, so Git could commit it. Add it to .gitignore now.");
  EXPECT_FALSE(files_->place((tree() / "ignored/a.env").string(), "SESSION", Worktree::allow).warning);
  // A way into the tree through a link, and a tree whose own settings would run a program.
  fs::create_directory_symlink(tree(), folder_.path() / "link");
  EXPECT_EQ(placeFails(folder_.path() / "link/a.env"), Case::insideGitWorktree);
  git("config core.fsmonitor 'touch " + (folder_.path() / "ran").string() + "'");
  EXPECT_EQ(placeFails(tree() / "b.env"), Case::insideGitWorktree);
  EXPECT_FALSE(fs::exists(folder_.path() / "ran"));
  // A Git that cannot tell is no leave.
  std::ofstream(tree() / ".git/config") << "[core\n";
  EXPECT_EQ(placeFails(tree() / "c.env"), Case::insideGitWorktree);
  EXPECT_EQ(placeFails("a.env"), Case::notAbsolute);
}

TEST_F(KeyFiles, nothingThatIsThereIsOverwritten) {
  begin();
  const fs::path path = folder_.path() / "keys.env", elsewhere = folder_.path() / "elsewhere";
  std::ofstream(path) << "mine\n";
  EXPECT_EQ(placeFails(path), Case::exists);
  fs::remove(path);
  fs::create_symlink(elsewhere, path);
  EXPECT_EQ(placeFails(path), Case::exists);
  fs::remove(path);
  // The same while the owner was asked.
  const auto place = files_->place(path.string(), "SESSION", Worktree::refuse);
  fs::create_symlink(elsewhere, path);
  std::vector<KeyEnvFiles::Key> keys;
  keys.push_back({"OPENAI_API_KEY", base::SecretText("sk-made-up"), Kind::real});
  EXPECT_THROW(files_->write(place, session(), keys), KeyEnvFileError);
  EXPECT_FALSE(fs::exists(elsewhere));
  EXPECT_EQ(placeFails(folder_.path() / "missing/keys.env"), Case::writeFailed);
}

TEST_F(KeyFiles, aFileGoesWithItsSessionUnlessSomebodyChangedIt) {
  begin();
  const fs::path kept = written(folder_.path() / "kept.env"), edited = written(folder_.path() / "edited.env"),
                 replaced = written(folder_.path() / "replaced.env"),
                 other = written(folder_.path() / "other.env", "OTHER");
  std::ofstream(edited, std::ios::app) << "MINE=1\n";
  fs::remove(replaced);
  fs::create_symlink(other, replaced);
  files_->sessionsEnded({session()});
  EXPECT_FALSE(fs::exists(kept));
  EXPECT_TRUE(fs::exists(edited));
  EXPECT_TRUE(fs::is_symlink(replaced));
  EXPECT_TRUE(fs::exists(other)) << "another session's, also when a link leads to it";
  std::size_t left = 0;
  for (const auto& entry : fs::directory_iterator(folder_.path())) {
    if (entry.path().filename().string().ends_with(".sorvane-deleting")) ++left;
  }
  EXPECT_EQ(left, 0U);
}

TEST_F(KeyFiles, aRestartDeletesWhatAnEarlierRunLeft) {
  begin();
  const fs::path path = written(folder_.path() / "keys.env"), managed = [&] {
    std::vector<KeyEnvFiles::Key> keys;
    keys.push_back({"OPENAI_API_KEY", base::SecretText("sk-made-up"), Kind::standIn});
    return files_->write(files_->place({}, "SESSION", Worktree::refuse), session(), keys).path;
  }();
  EXPECT_EQ(managed, (records() / "SESSION.env").string());
  struct stat status {};
  ASSERT_EQ(::stat((records() / "manifest.json").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  // The run stopped while it was deleting: the file stands aside.
  const fs::path aside = folder_.path() / ".keys.env.sorvane-deleting";
  fs::rename(path, aside);
  begin().removeAll();
  EXPECT_FALSE(fs::exists(path));
  EXPECT_FALSE(fs::exists(aside));
  EXPECT_FALSE(fs::exists(managed));
  std::ofstream(records() / "manifest.json") << "[{\"path\": \"relative\"}, 7]";
  begin().removeAll();
}

TEST_F(KeyFiles, theTextSaysWhetherItHoldsRealKeys) {
  std::vector<KeyEnvFiles::Key> keys;
  keys.push_back({"OPENAI_API_KEY", base::SecretText("sk-made-up with \"quotes\""), Kind::standIn});
  const base::Date until = clock_.now() + 60s;
  EXPECT_EQ(std::string(keyEnvFileText(keys, until).view()),
            "# sorvane compatibility .env: short-lived sorvane keys only, never real provider keys.\n"
            "# Deleted automatically at 2026-11-21T00:01:00Z, when a key is revoked or the task session ends, or when "
            "sorvane quits.\n"
            "OPENAI_API_KEY=\"sk-made-up with \\\"quotes\\\"\"\n");
  keys.front().kind = Kind::real;
  EXPECT_TRUE(
      keyEnvFileText(keys, until)
          .view()
          .starts_with("# sorvane compatibility .env: short-lived keys. Mint-mode lines hold a REAL provider key "
                       "(limited, expiring, revocable); anything that can read this file can use it until "
                       "then.\n"));
}

}  // namespace
}  // namespace sorvane::agent
