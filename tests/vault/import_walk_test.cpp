#include "vault/import_walk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "support/doubles.h"

namespace sorvane::vault {
namespace {

namespace fs = std::filesystem;

class ImportWalk : public ::testing::Test {
 protected:
  fs::path put(const fs::path& below, const std::string& text = "A=b\n") {
    const fs::path path = root() / below;
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
    return path;
  }

  std::vector<std::string> found(const WalkResult& result) const {
    std::vector<std::string> names;
    for (const auto& file : result.files) names.push_back(file.path.lexically_relative(root()).string());
    return names;
  }
  std::vector<std::string> found() const { return found(walkForEnvFiles(root())); }

  fs::path root() const { return folder_.path() / "shop"; }
  fs::path outside() const { return folder_.path() / "outside"; }

  ImportCandidate only() {
    const WalkResult result = walkForEnvFiles(root());
    if (result.files.size() != 1) throw std::runtime_error("not one file");
    return result.files.front();
  }

 private:
  test::TemporaryFolder folder_;
};

using Names = std::vector<std::string>;

TEST_F(ImportWalk, findsEnvFilesByNameAndPassesTemplatesAndFoldersOfTools) {
  for (const char* name : {".env", ".env.local", ".dev.vars", ".dev.vars.staging", "apps/web/.env", ".config/.env"})
    put(name);
  for (const char* name : {".env.example", ".env.local.sample", ".env.TEMPLATE", ".env.dist", ".dev.vars.defaults",
                           ".env.tpl", ".environment", "env", ".envrc", ".dev.varsx", ".ENV"}) {
    put(name);
  }
  for (const char* name : {"node_modules", ".git", "dist", "target", "__pycache__", "legacy-tauri", "apps/web/.next"}) {
    put(fs::path(name) / "deep/.env");
  }
  fs::create_directories(root() / "b/.env.d");
  fs::create_directories(root() / ".env.folder");
  EXPECT_EQ(found(), (Names{".config/.env", ".dev.vars", ".dev.vars.staging", ".env", ".env.local", "apps/web/.env"}));
  EXPECT_FALSE(isEnvFileName(".ENV.TEMPLATE"));
}

TEST_F(ImportWalk, followsNoLinkAndTakesAFileWithSeveralNamesOnce) {
  const fs::path real = put("a/.env");
  fs::create_hard_link(real, root() / ".env.again");
  fs::create_directories(outside());
  std::ofstream(outside() / ".env") << "A=b\n";
  put("node_modules/pkg/.env");
  fs::create_directory_symlink(outside(), root() / "link");
  fs::create_directory_symlink(root(), root() / "a/loop");
  fs::create_symlink(outside() / ".env", root() / ".env.outside");
  fs::create_symlink(root() / "node_modules/pkg/.env", root() / ".env.inside");
  EXPECT_EQ(found(), (Names{".env.again"}));
  fs::create_directory_symlink(root(), outside() / "entry");
  EXPECT_EQ(walkForEnvFiles(outside() / "entry").files.size(), 1U) << "the root itself may be a link";
}

TEST_F(ImportWalk, goesDownToItsDepthAndSaysThatThereIsMore) {
  fs::path below;
  for (std::size_t i = 0; i < kMaxWalkDepth; ++i) below /= "d";
  put(below / ".env");
  WalkResult result = walkForEnvFiles(root());
  EXPECT_EQ(result.files.size(), 1U);
  EXPECT_FALSE(result.tooDeep);
  put(below / "d/.env");
  result = walkForEnvFiles(root());
  EXPECT_EQ(result.files.size(), 1U);
  EXPECT_TRUE(result.tooDeep);
}

TEST_F(ImportWalk, findsTheSameInAWideTreeWithTwoThreads) {
  Names expected;
  for (int i = 100; i < 400; ++i) {
    for (const char* inner : {"/.env", "/s/.env.local"}) {
      expected.push_back("p" + std::to_string(i) + inner);
      put(expected.back());
    }
  }
  for (int run = 0; run < 20; ++run) ASSERT_EQ(found(), expected);
}

TEST_F(ImportWalk, endsWhenItIsToldToAndPassesOnWhatIsThrown) {
  for (int i = 0; i < 200; ++i) put("p" + std::to_string(i) + "/.env");
  int asked = 0;
  const WalkResult some = walkForEnvFiles(root(), [&] { return ++asked < 2; });
  EXPECT_LT(some.files.size(), 200U);
  EXPECT_EQ(walkForEnvFiles(root(), [] { return false; }).files.size(), 0U);
  EXPECT_THROW(
      walkForEnvFiles(root(), [&]() -> bool { return ++asked < 50 ? true : throw std::runtime_error("gone"); }),
      std::runtime_error);
}

/// What `check` answers in a process of an ordinary user.
int asOrdinaryUser(const std::function<int()>& check) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(99);
    ::_exit(check());
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 98;
}

TEST_F(ImportWalk, reportsFoldersThatItMayNotReadAndGoesOn) {
  put("open/.env");
  put("shut/.env");
  fs::permissions(root().parent_path(), fs::perms::all);
  const auto walked = [&] {
    const WalkResult result = walkForEnvFiles(root());
    const bool told = result.unreadable == Names{(root() / "shut").string()};
    return (told ? 10 : result.unreadable.empty() ? 0 : 50) + static_cast<int>(result.files.size());
  };
  EXPECT_EQ(asOrdinaryUser(walked), 2) << "the control reads both";
  fs::permissions(root() / "shut", fs::perms::none);
  EXPECT_EQ(asOrdinaryUser(walked), 11);
  fs::permissions(root() / "shut", fs::perms::all);
  EXPECT_EQ(walkForEnvFiles(root() / "missing").unreadable, Names{(root() / "missing").string()});
}

TEST_F(ImportWalk, readsTheVeryFileThatWasFoundAndNoOther) {
  const fs::path path = put(".env", "A=found\n");
  const ImportCandidate candidate = only();
  EXPECT_EQ(readCandidate(candidate).text->view(), "A=found\n");
  const auto refused = [&] {
    const FileRead read = readCandidate(candidate);
    EXPECT_FALSE(read.text);
    return read.error;
  };
  fs::rename(path, root() / "kept");
  EXPECT_EQ(refused(), "Could not read this file.") << "gone";
  fs::create_symlink(root() / "kept", path);
  EXPECT_EQ(refused(), "Could not read this file.") << "a link to the very file";
  fs::remove(path);
  put(".env", "A=other\n");
  EXPECT_EQ(refused(), "Could not read this file.") << "another file";
  fs::remove(path);
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(refused(), "Could not read this file.") << "a pipe that nobody writes to";
  EXPECT_EQ(found(), Names{}) << "a pipe is no candidate";
}

TEST_F(ImportWalk, readsAMebibyteAndNoMore) {
  const fs::path path = put(".env", std::string(kMaxEnvFileBytes, '#'));
  const ImportCandidate candidate = only();
  EXPECT_EQ(readCandidate(candidate).text->size(), kMaxEnvFileBytes);
  std::ofstream(path, std::ios::app) << '#';
  const FileRead read = readCandidate(candidate);
  EXPECT_FALSE(read.text);
  EXPECT_EQ(read.error,
            "This file is larger than 1 MiB, so nothing of it was read. Move its keys to a smaller .env file.");
}

TEST(ImportFolder, aFolderThatIsNoProjectIsRefused) {
  const fs::path homes = fs::path("/") / "home", home = homes / "ada", support = home / ".local/share/sorvane";
  for (const fs::path& folder : {fs::path("/"), homes, home, homes / "bob", fs::path("/") / "root", home / ".local",
                                 home / ".local/share", support, support / "vault"}) {
    EXPECT_EQ(tooBroad(folder, home, support), "pick a project folder, not " + folder.string());
  }
  for (const fs::path& folder :
       {home / "shop", fs::path("/srv/shop"), home / ".local/share/sorvane-site", homes / "adamant/x"}) {
    EXPECT_EQ(tooBroad(folder, home, support), std::nullopt) << folder;
  }
}

TEST(ImportFolder, environmentsAndTargetsAreNamedAfterTheFile) {
  const struct {
    std::string file, environment;
    std::optional<std::string> target;
  } cases[] = {{".env", "shop", {}},
               {".dev.vars", "shop", {}},
               {".env.staging", "shop (staging)", "staging"},
               {".dev.vars.production", "shop (production)", "production"},
               {".env.development", "shop (development)", "development"},
               {".env.local", "shop (local)", {}},
               {".env.prod", "shop (prod)", {}},
               {".env.", "shop", {}}};
  for (const auto& [file, environment, target] : cases) {
    EXPECT_EQ(environmentNameFor("/srv/shop", file), environment);
    EXPECT_EQ(proposedTarget(file), target) << file;
  }
}

}  // namespace
}  // namespace sorvane::vault
