#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "agent/protocol.h"
#include "base/descriptor.h"
#include "support/corpus.h"
#include "support/doubles.h"

namespace sorvane::test {
namespace {

/// A stand-in for sorvaned: answers each connection with the next scripted response and keeps what it was asked.
class FakeServer {
 public:
  explicit FakeServer(const std::filesystem::path& folder) : path_((folder / "agent.sock").string()) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
    listener_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_.get(), 8) != 0) {
      throw std::runtime_error("no socket");
    }
    agent::AgentInfo info{path_, base::SecretText("controller-token"), {}};
    std::ofstream(folder / "agent.json") << agent::encodeInfo(info).view();
  }

  /// Serves the responses, one connection each, while `client` runs.
  void serve(std::vector<std::string> responses) {
    thread_ = std::jthread([this, responses = std::move(responses)] {
      for (const std::string& response : responses) {
        pollfd wait{listener_.get(), POLLIN, 0};
        if (::poll(&wait, 1, 20000) != 1) return;
        const base::Descriptor client(::accept(listener_.get(), nullptr, nullptr));
        std::string request;
        char piece[4096];
        for (ssize_t got; (got = ::read(client.get(), piece, sizeof piece)) > 0;)
          request.append(piece, static_cast<std::size_t>(got));
        requests_.push_back(nlohmann::json::parse(request));
        [[maybe_unused]] const auto sent = ::send(client.get(), response.data(), response.size(), MSG_NOSIGNAL);
      }
    });
  }
  std::vector<nlohmann::json> requests() {
    if (thread_.joinable()) thread_.join();
    return requests_;
  }

 private:
  const std::string path_;
  base::Descriptor listener_;
  std::jthread thread_;
  std::vector<nlohmann::json> requests_;
};

struct Ran {
  int status = -1;
  std::string output, errors;
};

class Sorvane : public ::testing::Test {
 protected:
  Ran run(const std::vector<std::string>& words, const std::string& input = "") {
    std::vector<std::string> all{SORVANE_BUILD "/sorvane", "--support-dir", folder_.path().string()};
    // The group comes first, as a person types it.
    all.insert(all.begin() + 1, words.begin(), words.end());
    if (const auto dashes = std::find(words.begin(), words.end(), "--"); dashes != words.end()) {
      all = {all[0]};
      all.insert(all.end(), words.begin(), dashes);
      all.insert(all.end(), {"--support-dir", folder_.path().string()});
      all.insert(all.end(), dashes, words.end());
    }
    std::ofstream(folder_.path() / "in") << input;
    const pid_t child = ::fork();
    if (child == 0) {
      ::dup2(::open((folder_.path() / "in").c_str(), O_RDONLY), 0);
      ::dup2(::open((folder_.path() / "out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
      ::dup2(::open((folder_.path() / "err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
      std::vector<char*> argv;
      for (std::string& word : all) argv.push_back(word.data());
      argv.push_back(nullptr);
      ::execv(argv[0], argv.data());
      ::_exit(126);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128, textOfFile(folder_.path() / "out"),
            textOfFile(folder_.path() / "err")};
  }

  TemporaryFolder folder_;
  FakeServer server_{folder_.path()};
};

TEST_F(Sorvane, sendsAValueFromStandardInputAndNeverFromAnArgument) {
  server_.serve({R"({"ok":true,"value":"sec_1"})"});
  const Ran ran = run({"secret", "add", "API", "--tag", "a", "--tag", "b", "--favorite", "on"}, "made up \n");
  EXPECT_EQ(ran.status, 0) << ran.errors;
  const auto request = server_.requests().at(0);
  EXPECT_EQ(request["token"], "controller-token");
  EXPECT_EQ(request["op"], "manageVault");
  EXPECT_EQ(request["value"], "made up ");
  EXPECT_EQ(request["requestor"], "sorvane command line");
  EXPECT_EQ(
      request["payload"],
      (nlohmann::json{{"action", "secretAdd"}, {"name", "API"}, {"tags", "[\"a\",\"b\"]"}, {"favorite", "true"}}));
  EXPECT_EQ((ran.output + ran.errors).find("made up"), std::string::npos);
  EXPECT_EQ(run({"secret", "add", "API", "value"}).status, 2) << "a value has no place among the arguments";
  EXPECT_EQ(run({"secret", "add", "API"}, "").status, 2);
}

TEST_F(Sorvane, runPassesOnTheMaskedOutputAndTheExitCode) {
  server_.serve({R"({"ok":true,"value":"line ‹redacted›\n","warnings":["A: gone"],"document":"{\"exitCode\":42}"})"});
  const Ran ran = run({"run", "Dev", "--target", "staging", "--timeout", "5", "--", "sh", "-c", "exit 42", "--json"});
  EXPECT_EQ(ran.status, 42);
  EXPECT_EQ(ran.output, "line ‹redacted›\n");
  EXPECT_EQ(ran.errors, "Warning: A: gone\n");
  const auto request = server_.requests().at(0);
  EXPECT_EQ(request["payload"]["command"], R"(["sh","-c","exit 42","--json"])");
  EXPECT_EQ(request["payload"]["deploymentTarget"], "staging");
  EXPECT_TRUE(request["directory"].get<std::string>().starts_with("/"));
}

TEST_F(Sorvane, refusalsHaveTheirOwnExitCodesAndJson) {
  const struct {
    const char* response;
    int status;
    const char* code;
  } cases[] = {
      {R"({"ok":false,"error":"approval denied"})", 77, "approval_denied"},
      {R"({"ok":false,"error":"no","errorCode":"deployment_policy_refused"})", 77, "deployment_policy_refused"},
      {R"({"ok":false,"error":"vault unavailable; retry after unlocking or restoring"})", 75, "refused"},
      {R"({"ok":false,"error":"sorvane is handling as many requests as it can. Nothing was shared."})", 75, "refused"},
      {R"({"ok":false,"error":"There is no secret."})", 1, "refused"},
      {"", 1, "bad_answer"},
      {"not json", 1, "bad_answer"}};
  for (const auto& c : cases) {
    server_.serve({c.response});
    const Ran ran = run({"secret", "list", "--json"});
    EXPECT_EQ(ran.status, c.status) << c.response;
    EXPECT_EQ(nlohmann::json::parse(ran.output)["error"]["code"], c.code);
    EXPECT_EQ(ran.errors, "");
    server_.requests();
  }
  std::filesystem::remove(folder_.path() / "agent.json");
  EXPECT_EQ(run({"status"}).status, 69);
  std::filesystem::permissions(folder_.path(), std::filesystem::perms::all);
  EXPECT_EQ(run({"status"}).status, 78);
}

TEST_F(Sorvane, tablesEscapeNamesAndJsonIsTheDocumentItself) {
  const std::string document =
      R"({"secrets":[{"name":"a\u001b[2J","currentVersion":3,"badge":"overdue","isFavorite":true,"environments":["Dev","P"]},)"
      R"({"name":"漢字","currentVersion":1,"badge":"","isFavorite":false,"environments":[]}]})";
  const std::string response = nlohmann::json{{"ok", true}, {"document", document}}.dump();
  server_.serve({response});
  EXPECT_EQ(run({"secret", "list"}).output,
            "  NAME      VERSION  ROTATION  LIMITED TO  ENVIRONMENTS\n"
            "* a\\x1b[2J  v3       overdue               Dev, P\n"
            "  漢字      v1\n");
  server_.requests();
  server_.serve({response});
  EXPECT_EQ(nlohmann::json::parse(run({"secret", "list", "--json"}).output), nlohmann::json::parse(document));
}

TEST_F(Sorvane, valuesGoToFilesOfTheOwnerOrToATerminal) {
  EXPECT_EQ(run({"secret", "reveal", "API"}).status, 2) << "standard output is a file here";
  EXPECT_EQ(run({"export", "Dev"}).status, 2);
  server_.serve({R"({"ok":true,"value":"A=1\n"})"});
  const auto file = folder_.path() / "dev.env";
  EXPECT_EQ(run({"export", "Dev", "--output", file.string()}).status, 0);
  EXPECT_EQ(textOfFile(file), "A=1\n");
  EXPECT_EQ(std::filesystem::status(file).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  server_.requests();
  const std::string all = R"({"environments":[{"name":"../a/b","text":"A=1\n"},{"name":"Odd","refused":"No."},)"
                          R"({"name":"../a_b","text":"B=2\n","warnings":["C: bound secret no longer exists"]}]})";
  server_.serve({nlohmann::json{{"ok", true}, {"document", all}}.dump()});
  const Ran ran = run({"export", "--all", "--to", (folder_.path() / "all").string()});
  EXPECT_EQ(ran.status, 1);
  EXPECT_NE(ran.errors.find("Odd: not written. No."), std::string::npos);
  EXPECT_EQ(textOfFile(folder_.path() / "all" / "_._a_b.env"), "A=1\n");
  EXPECT_EQ(textOfFile(folder_.path() / "all" / "_._a_b-2.env"), "B=2\n") << "no file is written over another";
  EXPECT_NE(ran.errors.find("Warning: C: bound secret no longer exists"), std::string::npos);
}

TEST_F(Sorvane, answersThatLackWhatTheyMustHoldAreRefused) {
  const std::vector<std::string> commands[] = {{"secret", "show", "A"},
                                               {"secret", "versions", "A"},
                                               {"env", "list"},
                                               {"env", "show", "E"},
                                               {"agent", "list"},
                                               {"log"},
                                               {"log", "--usage"},
                                               {"status"},
                                               {"policy"},
                                               {"agent", "add", "A"},
                                               {"gc", "--days", "1"},
                                               {"secret", "add", "A"},
                                               {"export", "E", "--json"}};
  for (const auto& command : commands) {
    server_.serve({R"({"ok":true,"document":"{}"})"});
    const Ran ran = run(command, "made up");
    EXPECT_EQ(ran.status, 1) << command[0];
    EXPECT_NE((ran.output + ran.errors).find("sorvaned sent an answer that this program does not understand."),
              std::string::npos)
        << command[0] << ran.output << ran.errors;
    server_.requests();
  }
}

TEST_F(Sorvane, refusalsAreEscapedForThePersonAndAWrongCommandLineIsJsonForPrograms) {
  server_.serve({nlohmann::json{{"ok", false}, {"error", "There is no secret named 'a\x1b[2J’'."}}.dump()});
  EXPECT_EQ(run({"secret", "show", "a"}).errors, "There is no secret named 'a\\x1b[2J’'.\n");
  server_.requests();
  const Ran wrong = run({"secret", "shout", "--json"});
  EXPECT_EQ(wrong.status, 2);
  EXPECT_EQ(nlohmann::json::parse(wrong.output)["error"]["code"], "usage");
  EXPECT_EQ(wrong.errors, "");
  const Ran words = run({"run", "Dev", "--nonsense", "--", "true", "--json"});
  EXPECT_EQ(words.status, 2);
  EXPECT_EQ(words.output, "") << "--json is the command's own word here";
}

TEST_F(Sorvane, anOptionTakesOneItemAndLeavesTheNameAlone) {
  const struct {
    std::vector<std::string> words;
    nlohmann::json payload;
  } cases[] = {
      {{"secret", "edit", "--tag", "a", "--tag", "b", "API"},
       {{"action", "secretEdit"}, {"name", "API"}, {"tags", R"(["a","b"])"}}},
      {{"secret", "edit", "API", "--tag", "", "--label", ""},
       {{"action", "secretEdit"}, {"name", "API"}, {"tags", "[]"}, {"label", ""}}},
      {{"secret", "limit", "API", "staging", "production", "--version", "2"},
       {{"action", "secretLimit"}, {"name", "API"}, {"targets", R"(["staging","production"])"}, {"version", "2"}}},
      {{"secret", "limit", "API", ""}, {{"action", "secretLimit"}, {"name", "API"}, {"targets", "[]"}}},
      {{"env", "target", "Dev", ""}, {{"action", "environmentTarget"}, {"name", "Dev"}, {"target", ""}}},
      {{"env", "edit", "Dev", "--folder", ""}, {{"action", "environmentEdit"}, {"name", "Dev"}, {"folder", ""}}},
      {{"agent", "edit", "A", "--any-env", "--allow-reveal", "off"},
       {{"action", "agentEdit"}, {"label", "A"}, {"environment", ""}, {"allowReveal", "false"}}}};
  for (const auto& c : cases) {
    server_.serve({R"({"ok":true})"});
    const Ran ran = run(c.words);
    ASSERT_EQ(ran.status, 0) << c.payload << ran.errors;
    const auto requests = server_.requests();
    EXPECT_EQ(requests.back()["payload"], c.payload);
  }
}

TEST_F(Sorvane, anExportSaysWhyAFileFailedAndAsksNobodyWithoutAFolder) {
  std::ofstream(folder_.path() / "file") << "kept";
  const Ran nowhere = run({"export", "--all", "--to", (folder_.path() / "file").string()});
  EXPECT_EQ(nowhere.status, 1) << "no request is served here: asking would fail otherwise";
  EXPECT_NE(nowhere.errors.find("cannot be used (File exists). Nothing was shared."), std::string::npos)
      << nowhere.errors;
  std::filesystem::create_directories(folder_.path() / "all" / "A.env");
  const std::string all = R"({"environments":[{"name":"A","text":"A=1\n"},{"name":"b","text":"B=2\n"},)"
                          R"({"name":"B","text":"B=3\n"}]})";
  server_.serve({nlohmann::json{{"ok", true}, {"document", all}}.dump()});
  const Ran ran = run({"export", "--all", "--to", (folder_.path() / "all").string(), "--json"});
  EXPECT_EQ(ran.status, 1) << ran.errors;
  const auto rows = nlohmann::json::parse(ran.output)["environments"];
  EXPECT_TRUE(rows[0].contains("refused")) << "a folder stands where the file would";
  EXPECT_EQ(textOfFile(folder_.path() / "all" / "b.env"), "B=2\n");
  EXPECT_EQ(textOfFile(folder_.path() / "all" / "B-2.env"), "B=3\n") << "file systems may ignore the case";
  server_.requests();
  server_.serve({R"({"ok":true,"value":"A=1\n","missing":["C"],"warnings":["C: gone"]})"});
  EXPECT_EQ(nlohmann::json::parse(run({"export", "Dev", "--json"}).output),
            (nlohmann::json{{"text", "A=1\n"}, {"missing", {"C"}}, {"warnings", {"C: gone"}}}));
}

TEST_F(Sorvane, jobsAreFollowedToTheirEnd) {
  const auto job = [](const std::string& more) {
    return nlohmann::json{{"ok", true}, {"document", R"({"id":"J","kind":"gc","done":1,"total":2,)" + more + "}"}}
        .dump();
  };
  server_.serve({R"({"ok":true,"value":"J"})", job(R"("state":"running")"),
                 job(R"("state":"done","document":{"purgedSwept":2,"missingValues":["gone"]})")});
  const Ran ran = run({"gc", "--days", "30"});
  EXPECT_EQ(ran.status, 0) << ran.errors;
  EXPECT_EQ(ran.errors, "2 retired versions were purged.\ngone\n");
}

}  // namespace
}  // namespace sorvane::test
