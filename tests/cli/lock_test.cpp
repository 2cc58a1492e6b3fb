#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <deque>
#include <fstream>
#include <nlohmann/json.hpp>

#include "agent/owner_server.h"
#include "base/descriptor.h"
#include "base/lock_file.h"
#include "base/support_folder.h"
#include "support/corpus.h"
#include "support/doubles.h"
#include "support/owner_lock_double.h"

namespace sorvane::test {
namespace {

using agent::LockOutcome;
using nlohmann::json;
using Kind = LockOutcome::Kind;

struct Ran {
  int status = -1;
  std::string output, errors;
};

/// The program before a lock that answers what the test says; without a terminal, so that passphrases come from a
/// program of the test's own.
class Lock : public ::testing::Test {
 protected:
  void SetUp() override {
    agent::LockReport& report = lock_.lockReport;
    report.prompt = "passphrase";
    report.sentence = "sorvane opens with its passphrase.";
    report.requirement = "only";
    report.hasPassphrase = report.followsSession = report.sessionIsReported = report.storeIsSealed = true;
    report.store = "embedded";
    report.notices = {"A copy of the files can be tried at leisure."};
    report.version = "1.2.3";
    report.supportFolder = "/made/up";
    ASSERT_TRUE(server_->start());
    lock_.reply = [this](const agent::LockCaller&) {
      if (outcomes_.empty()) return LockOutcome{};
      LockOutcome outcome = outcomes_.front();
      outcomes_.pop_front();
      return outcome;
    };
  }

  /// A program that prints the lines one after the other, one for each time it is asked.
  std::string asker(const std::vector<std::string>& lines, int status = 0) {
    const auto path = folder_.path() / "ask";
    std::ofstream script(path);
    script << "#!/bin/sh\necho \"$1\" >> \"$0.prompts\"\ncase $(wc -l < \"$0.prompts\") in\n";
    for (std::size_t i = 0; i < lines.size(); ++i) script << i + 1 << ") printf '" << lines[i] << "';;\n";
    script << "esac\nexit " << status << "\n";
    script.close();
    ::chmod(path.c_str(), 0700);
    std::ofstream(path.string() + ".prompts").flush();
    return path.string();
  }

  Ran run(std::vector<std::string> words, const std::string& askpass = "") {
    words.insert(words.begin(), SORVANE_BUILD "/sorvane");
    words.insert(words.begin() + 2, {"--support-dir", folder_.path().string()});
    std::vector<std::string> variables{"PATH=" + folder_.path().string() + ":/usr/bin:/bin"};
    if (!askpass.empty()) variables.push_back("SORVANE_ASKPASS=" + askpass);
    const std::string out = folder_.path() / "out", err = folder_.path() / "err";
    posix_spawn_file_actions_t files;
    ::posix_spawn_file_actions_init(&files);
    ::posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    pid_t child = 0;
    EXPECT_EQ(::posix_spawn(&child, words[0].c_str(), &files, &attributes, pointers(words).data(),
                            pointers(variables).data()),
              0);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&files);
    int status = 0;
    ::waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128, textOfFile(out), textOfFile(err)};
  }

  /// The same with a person at a terminal, who types the lines, one for each time that a passphrase is asked for.
  Ran runTyped(std::vector<std::string> words, const std::vector<std::string>& typed) {
    words.insert(words.begin(), SORVANE_BUILD "/sorvane");
    words.insert(words.begin() + 2, {"--support-dir", folder_.path().string()});
    std::vector<std::string> variables{"PATH=/usr/bin:/bin"};
    const base::Descriptor person(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    EXPECT_EQ(::grantpt(person.get()) + ::unlockpt(person.get()), 0);
    const std::string name = ::ptsname(person.get());
    posix_spawn_file_actions_t files;
    ::posix_spawn_file_actions_init(&files);
    // The first terminal that the leader of a session opens is its own.
    for (int i = 0; i < 3; ++i) ::posix_spawn_file_actions_addopen(&files, i, name.c_str(), O_RDWR, 0);
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    pid_t child = 0;
    EXPECT_EQ(::posix_spawn(&child, words[0].c_str(), &files, &attributes, pointers(words).data(),
                            pointers(variables).data()),
              0);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&files);
    Ran ran;
    std::size_t asked = 0, seen = 0;
    for (char piece[256];;) {
      const ssize_t got = ::read(person.get(), piece, sizeof piece);
      if (got <= 0) break;  // the program has gone
      ran.output.append(piece, static_cast<std::size_t>(got));
      constexpr std::string_view kAsks = "(not shown): ";
      for (std::size_t at = 0; (at = ran.output.find(kAsks, seen)) != std::string::npos; ++asked) {
        seen = at + kAsks.size();
        const std::string line = (asked < typed.size() ? typed[asked] : "\x03") + "\r";
        EXPECT_EQ(::write(person.get(), line.data(), line.size()), static_cast<ssize_t>(line.size()));
      }
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ran.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128;
    EXPECT_EQ(asked, typed.size()) << ran.output;
    return ran;
  }

  TemporaryFolder folder_;
  base::SystemFiles files_;
  OwnerLockDouble lock_;
  OwnerRestoreDouble restore_;
  std::deque<LockOutcome> outcomes_;
  base::LockFile lockFile_{folder_.path() / base::kLockName};
  std::optional<agent::OwnerServer> server_{std::in_place, folder_.path(),
                                            agent::OwnerServer::Ports{files_, lock_, restore_}};

 private:
  static std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> all;
    for (std::string& text : texts) all.push_back(text.data());
    all.push_back(nullptr);
    return all;
  }
};

TEST_F(Lock, aLockedVaultIsToldFromOneThatDoesNotRun) {
  const std::vector<std::string> commands[] = {{"secret", "list"}, {"run", "E", "--", "true"}, {"policy"}};
  const auto codes = [&](int status, const std::string& code) {
    for (auto words : commands) {
      words.insert(words.begin() + 1, "--json");
      const Ran ran = run(words);
      EXPECT_EQ(ran.status, status) << words[0] << ran.output;
      EXPECT_EQ(json::parse(ran.output)["error"]["code"], code) << words[0];
    }
  };
  codes(75, "locked");
  EXPECT_EQ(run({"secret", "list"}).errors,
            "sorvane is locked, so nothing was shared. Its owner opens it with sorvane unlock. Then try again.\n");
  std::ofstream(folder_.path() / "agent.json")
      << R"({"socketPath":")" << (folder_.path() / "agent.sock").string() << R"(","token":"made-up"})";
  codes(75, "locked");  // the endpoint of one that was killed
  lock_.lockReport.isUnlocked = true;
  codes(75, "busy");
  server_.reset();
  codes(69, "not_running");
  EXPECT_EQ(run({"unlock"}).status, 69);
  EXPECT_EQ(run({"status"}).status, 69);
}

TEST_F(Lock, statusSaysHowItStandsAndWhatOpensItInEachState) {
  const Ran locked = run({"status"});
  EXPECT_EQ(locked.status, 0);
  EXPECT_EQ(locked.output,
            "sorvaned 1.2.3 keeps the vault in /made/up.\n"
            "sorvane is locked. sorvane opens with its passphrase.\n"
            "It opens with its passphrase alone.\n"
            "It locks with your login session.\n"
            "The values in the embedded store are sealed under the passphrase.\n"
            "A copy of the files can be tried at leisure.\n");
  agent::LockReport& report = lock_.lockReport;
  report.systemCheckUnavailable = "Install polkit.";
  report.sessionIsReported = false;
  const Ran alone = run({"status"});
  EXPECT_EQ(alone.output.find("Install polkit."), std::string::npos) << "the passphrase alone opens it";
  EXPECT_NE(alone.output.find("It is set to lock with your login session."), std::string::npos) << alone.output;
  report.heldLocked = report.isManaged = true;
  report.waitSeconds = 30;
  report.storeIsSealed = false;
  report.requirement = "withSystem";
  const Ran held = run({"status"});
  for (const char* const words : {"It stays locked until you open it yourself.", "is taken in 30 seconds.",
                                  "Install polkit.", "are not sealed under a passphrase.",
                                  "Your organization decided so.", "check of its owner and its passphrase."}) {
    EXPECT_NE(held.output.find(words), std::string::npos) << words << held.output;
  }
  const json document = json::parse(run({"status", "--json"}).output);
  EXPECT_EQ(document["vaultOpen"], false);
  EXPECT_EQ(document["lock"]["requirement"], "withSystem");
  EXPECT_EQ(document["lock"]["waitSeconds"], 30);
}

TEST_F(Lock, commandsAskTheLockForWhatTheySayAndTypeWhatItNeeds) {
  enum State { locked, open, bare, systemLocked };
  const struct {
    State state;
    std::vector<std::string> words, typed;
    const char* call;
  } cases[] = {
      {locked, {"unlock"}, {"old words\\n"}, "passphrase old words"},
      {locked, {"unlock"}, {"old words\\r\\nmore\\n"}, "passphrase old words"},
      {systemLocked, {"unlock"}, {}, "system first"},
      {systemLocked, {"unlock", "--password"}, {}, "system password"},
      {open, {"lock"}, {}, "lock"},
      {open, {"lock", "--hold"}, {}, "lock held"},
      {bare, {"passphrase", "set"}, {"new words", "again"}, "set new words again withSystem"},
      {bare, {"passphrase", "set", "--require", "only"}, {"new words", "again"}, "set new words again only"},
      {open, {"passphrase", "change"}, {"old", "new words", "again"}, "change old new words again"},
      {open, {"passphrase", "remove", "--yes"}, {"old"}, "remove with old"},
      {open, {"require", "with-system"}, {"old"}, "require withSystem with old"},
      {open, {"require", "off", "--yes"}, {"old"}, "require off with old"},
      {open, {"follow-session", "off"}, {}, "follow off"},
      {systemLocked, {"unlock", "reset", "--yes"}, {}, "reset"},
  };
  for (const auto& c : cases) {
    agent::LockReport& report = lock_.lockReport;
    report.isUnlocked = c.state == open || c.state == bare;
    report.hasPassphrase = report.storeIsSealed = c.state != bare;
    report.prompt = c.state == systemLocked ? "system" : "passphrase";
    const Ran ran = run(c.words, asker(c.typed));
    EXPECT_EQ(ran.status, 0) << c.call << ran.errors;
    ASSERT_FALSE(lock_.calls().empty()) << c.call;
    EXPECT_EQ(lock_.calls().back(), c.call);
    const std::string asked = textOfFile(folder_.path() / "ask.prompts");
    EXPECT_EQ(static_cast<std::size_t>(std::count(asked.begin(), asked.end(), '\n')), c.typed.size()) << c.call;
    for (const std::string& secret : c.typed) EXPECT_EQ((ran.output + ran.errors).find(secret), std::string::npos);
  }
}

TEST_F(Lock, refusalsShowTheirSentenceAndHaveTheirExitCodes) {
  const struct {
    const char *code, *sentence, *shown;
    int status;
  } cases[] = {{"wait", "Too many tries. Try again in 5 seconds.", "wait", 75},
               {"wrongPassphrase", "Wrong passphrase.", "wrong_passphrase", 77},
               {"cancelled", "Couldn’t verify. Try again.", "cancelled", 77},
               {"tooShort", "Use at least 8 characters.", "too_short", 2},
               {"settingsDamaged", "It may be damaged.", "settings_damaged", 78},
               {"storage", "It could not be saved.", "storage", 1}};
  for (const auto& c : cases) {
    outcomes_ = {{Kind::refused, c.code, c.sentence}, {Kind::refused, c.code, c.sentence}};
    const std::size_t before = lock_.calls().size();
    EXPECT_EQ(run({"unlock"}, asker({"typed"})).errors, std::string(c.sentence) + "\n");
    EXPECT_EQ(lock_.calls().size(), before + 1) << "a program is not asked again";
    const Ran ran = run({"unlock", "--json"}, asker({"typed"}));
    EXPECT_EQ(ran.status, c.status) << c.code;
    EXPECT_EQ(json::parse(ran.output)["error"]["code"], c.shown);
  }
}

TEST_F(Lock, aMistypedPassphraseBeginsAgainWithTheSystemsCheckThatItEnded) {
  const LockOutcome needs{Kind::needsPassphrase, "", ""}, wrong{Kind::refused, "wrongPassphrase", "Wrong passphrase."};
  lock_.lockReport.requirement = "withSystem";
  lock_.lockReport.prompt = "system";
  outcomes_ = {needs, wrong, needs, {}};
  const Ran both = runTyped({"unlock"}, {"mistyped", "right"});
  EXPECT_EQ(both.status, 0) << both.output;
  const std::vector<std::string> calls{"system first", "passphrase mistyped", "system first", "passphrase right"};
  EXPECT_EQ(lock_.calls(), calls);
  EXPECT_EQ(both.output.find("mistyped"), std::string::npos);
  lock_.lockReport.requirement = "only";
  lock_.lockReport.prompt = "passphrase";
  outcomes_ = {wrong, wrong, wrong};
  const Ran alone = runTyped({"unlock"}, {"one", "two", "three"});
  EXPECT_EQ(alone.status, 77) << alone.output;
  EXPECT_EQ(alone.output.find("Waiting for"), std::string::npos) << alone.output;
}

TEST_F(Lock, whatSealsTheValuesTellsOfTheCopiesThatStayReadable) {
  lock_.lockReport.isUnlocked = true;
  lock_.lockReport.hasPassphrase = lock_.lockReport.storeIsSealed = false;
  const auto set = [this] { return run({"passphrase", "set"}, asker({"new words", "new words"})).errors; };
  EXPECT_EQ(set().find("copy"), std::string::npos) << "nothing was sealed";
  lock_.reply = [this](const agent::LockCaller&) {
    lock_.lockReport.storeIsSealed = true;
    return LockOutcome{};
  };
  const std::string said = set();
  EXPECT_NE(said.find("made before this still opens without the passphrase."), std::string::npos) << said;
  EXPECT_NE(said.find("Rotate every key"), std::string::npos) << said;
}

TEST_F(Lock, aPassphraseThatIsTooLongIsRefusedAndNeverCut) {
  EXPECT_EQ(run({"unlock"}, asker({std::string(1024, 'x')})).status, 0);
  const std::size_t before = lock_.calls().size();
  const Ran ran = run({"unlock"}, asker({std::string(1025, 'x')}));
  EXPECT_EQ(ran.status, 2);
  EXPECT_NE(ran.errors.find("has at most 1024 bytes"), std::string::npos) << ran.errors;
  EXPECT_EQ(lock_.calls().size(), before);
}

TEST_F(Lock, aResetIsExplainedInTheApplicationsOwnWords) {
  lock_.lockReport.prompt = "reset";
  lock_.lockReport.sentence = "The settings are missing. A reset keeps the passphrase.";
  const Ran asked = run({"unlock", "reset"});
  EXPECT_EQ(asked.status, 2);
  EXPECT_EQ(asked.errors.find("turns the passphrase off"), std::string::npos) << asked.errors;
  EXPECT_NE(asked.errors.find(lock_.lockReport.sentence), std::string::npos) << asked.errors;
  EXPECT_NE(run({"unlock", "reset", "--yes"}).errors.find("Its passphrase is as it was."), std::string::npos);
}

TEST_F(Lock, whatNeedsAPassphraseOrAWordFirstSaysSoAndAsksNobody) {
  outcomes_ = {{Kind::needsPassphrase, "", ""}};
  lock_.lockReport.prompt = "system";
  const Ran needs = run({"unlock"});
  EXPECT_EQ(needs.status, 2);
  EXPECT_NE(needs.errors.find("SORVANE_ASKPASS"), std::string::npos) << needs.errors;
  EXPECT_EQ(lock_.calls(), std::vector<std::string>{"system first"});
  for (const auto& [askpass, words] : {std::pair{asker({"typed"}, 1), "gave no passphrase"},
                                       {std::string("no-such-asker"), "could not be started"},
                                       {std::string("./ask"), "has to be an absolute path"},
                                       {std::string("ask"), "gave no passphrase"}}) {
    lock_.lockReport.prompt = "passphrase";
    const Ran ran = run({"unlock"}, askpass);
    EXPECT_EQ(ran.status, 2) << askpass;
    EXPECT_NE(ran.errors.find(words), std::string::npos) << ran.errors;
  }
  lock_.lockReport.prompt = "reset";
  EXPECT_EQ(run({"unlock"}).status, 78);
  for (const auto& words :
       {std::vector<std::string>{"require", "off"}, {"passphrase", "remove"}, {"unlock", "reset"}}) {
    const Ran ran = run(words, asker({"typed"}));
    EXPECT_EQ(ran.status, 2);
    EXPECT_NE(ran.errors.find("Give --yes"), std::string::npos) << ran.errors;
  }
  EXPECT_NE(run({"require", "off"}).errors.find("every program that runs as you can read the values"),
            std::string::npos);
  EXPECT_EQ(run({"passphrase", "set"}).status, 1) << "one is set";
  EXPECT_EQ(run({"unlock", "made-up-words"}).status, 2) << "never an argument";
  EXPECT_EQ(lock_.calls().size(), 1U);
}

}  // namespace
}  // namespace sorvane::test
