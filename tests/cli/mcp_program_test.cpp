#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <utility>

#include "agent/owner_server.h"
#include "cli/mcp_fixture.h"
#include "support/corpus.h"
#include "support/owner_lock_double.h"

namespace sorvane::test {
namespace {

constexpr char kToken[] = "made-up-grant-token";
constexpr char kGrant[] = "0B0E7A52-1111-4C2D-9E3F-ABCDEF012345";

/// `sorvane mcp` as an agent's client starts it.
class McpProgram : public ::testing::Test {
 protected:
  ~McpProgram() override { end(); }

  void start(const std::vector<std::string>& variables, const std::vector<std::string>& words = {}) {
    end();
    int in[2], out[2];
    ASSERT_EQ(::pipe2(in, O_CLOEXEC), 0);
    ASSERT_EQ(::pipe2(out, O_CLOEXEC), 0);
    std::vector<std::string> all{SORVANE_BUILD "/sorvane", "mcp", "--support-dir", folder_.path().string()};
    all.insert(all.end(), words.begin(), words.end());
    const std::string errors = (folder_.path() / "err").string();
    child_ = ::fork();
    if (child_ == 0) {
      ::dup2(in[0], 0);
      ::dup2(out[1], 1);
      ::dup2(::open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
      std::vector<char*> argv, envp;
      for (std::string& word : all) argv.push_back(word.data());
      for (const std::string& variable : variables) envp.push_back(const_cast<char*>(variable.c_str()));
      argv.push_back(nullptr);
      envp.push_back(nullptr);
      ::execve(argv[0], argv.data(), envp.data());
      ::_exit(126);
    }
    ::close(in[0]);
    ::close(out[1]);
    toIt_.reset(in[1]);
    fromIt_.reset(out[0]);
    unread_.clear();
  }
  void startWithToken() { start({std::string("SORVANE_MCP_TOKEN=") + kToken}); }

  void write(const std::string& text) {
    ASSERT_EQ(::write(toIt_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void call(int id, const char* tool, const json& arguments = json::object()) {
    const json params{{"name", tool}, {"arguments", arguments}};
    write(json{{"jsonrpc", "2.0"}, {"id", id}, {"method", "tools/call"}, {"params", params}}.dump() + "\n");
  }
  json heard() {
    std::size_t end;
    while ((end = unread_.find('\n')) == std::string::npos) {
      pollfd wait{fromIt_.get(), POLLIN, 0};
      char piece[65536];
      const ssize_t got = ::poll(&wait, 1, kPatience) == 1 ? ::read(fromIt_.get(), piece, sizeof piece) : 0;
      if (got <= 0) throw std::runtime_error("the program said nothing");
      unread_.append(piece, static_cast<std::size_t>(got));
    }
    const json message = json::parse(unread_.substr(0, end));
    unread_.erase(0, end + 1);
    return message;
  }
  /// Closes its input and returns its exit status; what it wrote after what was heard is in unread_.
  int end() {
    toIt_.reset();
    if (child_ <= 0) return -1;
    char piece[4096];
    for (ssize_t got; (got = ::read(fromIt_.get(), piece, sizeof piece)) > 0;)
      unread_.append(piece, static_cast<std::size_t>(got));
    int status = 0;
    ::waitpid(std::exchange(child_, 0), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
  }
  std::string errors() { return textOfFile(folder_.path() / "err"); }

  TemporaryFolder folder_;
  std::optional<StandIn> sorvaned_{std::in_place, folder_.path()};
  pid_t child_ = 0;
  base::Descriptor toIt_, fromIt_;
  std::string unread_;
};

TEST_F(McpProgram, withoutAConnectionItSaysHowToGetOne) {
  for (const std::vector<std::string>& variables :
       {std::vector<std::string>{}, {"SORVANE_MCP_TOKEN="}, {"SORVANE_MCP_TOKEN= \n"}}) {
    start(variables);
    EXPECT_EQ(end(), 78);
    EXPECT_EQ(unread_, "") << "nothing but protocol on standard output";
    EXPECT_NE(errors().find("sorvane agent connect"), std::string::npos);
  }
}

TEST_F(McpProgram, aGrantsTokenComesFromAPrivateFileOfThisUserAlone) {
  const auto clients = folder_.path() / "clients";
  const auto file = clients / (std::string(kGrant) + ".token");
  std::filesystem::create_directory(clients);
  const auto refused = [this](const std::string& grant, const char* why) {
    start({std::string("SORVANE_MCP_TOKEN=") + kToken}, {"--grant", grant});
    EXPECT_EQ(end(), 78) << why;
    EXPECT_EQ(unread_, "");
    EXPECT_EQ(errors().find(kToken), std::string::npos) << why;
  };
  refused(kGrant, "missing");
  std::ofstream(file) << kToken << "\n";
  ::chmod(file.c_str(), 0640);
  refused(kGrant, "others may read it");
  ::chmod(file.c_str(), 0600);
  refused("../clients/" + std::string(kGrant), "no UUID");
  refused(std::string(kGrant) + "0", "no UUID");
  std::filesystem::rename(file, clients / "real");
  std::filesystem::create_symlink("real", file);
  refused(kGrant, "a link");
  std::filesystem::remove(file);
  ::mkfifo(file.c_str(), 0600);
  refused(kGrant, "a pipe");
  std::filesystem::remove(file);
  std::ofstream(file) << "\n";
  ::chmod(file.c_str(), 0600);
  refused(kGrant, "empty");

  std::filesystem::rename(clients / "real", file);
  start({}, {"--grant", kGrant});
  call(1, "list_environments");
  Asked asked = sorvaned_->next();
  EXPECT_EQ(asked.request["token"], kToken);
  asked.answer({{"ok", true}});
  EXPECT_EQ(heard()["id"], 1);
  EXPECT_EQ(end(), 0);
}

TEST_F(McpProgram, findsSorvanedAgainForEachCall) {
  startWithToken();
  const auto failure = [this](int id) {
    call(id, "list_environments");
    const json result = heard()["result"];
    EXPECT_EQ(result["isError"], true);
    EXPECT_NE(result["content"][0]["text"].get<std::string>().find("Start sorvaned"), std::string::npos);
    return result["structuredContent"]["errorCode"];
  };
  call(1, "list_environments");
  sorvaned_->next().answer({{"ok", true}, {"names", {"A"}}});
  EXPECT_EQ(heard()["result"]["content"][0]["text"], "A");
  sorvaned_.reset();
  EXPECT_EQ(failure(2), "not_running") << "the endpoint stands, nobody listens";
  std::filesystem::remove(folder_.path() / "agent.json");
  EXPECT_EQ(failure(3), "not_running");
  sorvaned_.emplace(folder_.path(), "other.sock");
  call(4, "list_environments");
  sorvaned_->next().answer({{"ok", true}, {"names", {"B"}}});
  EXPECT_EQ(heard()["result"]["content"][0]["text"], "B");
  // A vault that is locked: only its lock is served.
  sorvaned_.reset();
  std::filesystem::remove(folder_.path() / "agent.json");
  base::SystemFiles files;
  OwnerLockDouble lock;
  OwnerRestoreDouble restore;
  agent::OwnerServer owner(folder_.path(), {files, lock, restore});
  ASSERT_TRUE(owner.start());
  call(5, "list_environments");
  const json locked = heard()["result"];
  EXPECT_EQ(locked["structuredContent"]["errorCode"], "locked");
  EXPECT_NE(locked["content"][0]["text"].get<std::string>().find("sorvane unlock"), std::string::npos);
  EXPECT_EQ(end(), 0);
  EXPECT_EQ(errors(), "");
}

TEST_F(McpProgram, theEndOfTheInputOrOfTheReaderWithdrawsWhatWasAsked) {
  startWithToken();
  call(1, "create_environment", {{"name", "N"}});
  Asked asked = sorvaned_->next();
  EXPECT_EQ(end(), 0);
  EXPECT_TRUE(asked.isWithdrawn());
  EXPECT_EQ(unread_, "");

  startWithToken();
  call(1, "create_environment", {{"name", "N"}});
  asked = sorvaned_->next();
  fromIt_.reset();
  write("{\"jsonrpc\":\"2.0\",\"id\":2,\"method\":\"ping\"}\n");
  EXPECT_TRUE(asked.isWithdrawn()) << "a client that reads no more is gone";
  EXPECT_EQ(end(), 0);
}

TEST_F(McpProgram, aHugeLineIsPassedOverAndRawValuesAreOfferedOnlyWhenAllowed) {
  startWithToken();
  const auto names = [this] {
    write("{\"jsonrpc\":\"2.0\",\"id\":7,\"method\":\"tools/list\"}\n");
    return heard()["result"]["tools"].dump();
  };
  const std::string piece(64 * 1024, ' ');
  for (int i = 0; i < 40; ++i) write(piece);
  write("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"ping\"}\n");
  EXPECT_EQ(heard()["error"]["code"], -32600);
  EXPECT_EQ(names().find("get_secret"), std::string::npos);
  start({std::string("SORVANE_MCP_TOKEN=") + kToken, "SORVANE_MCP_ALLOW_REVEAL=0"});
  EXPECT_EQ(names().find("get_secret"), std::string::npos);
  start({std::string("SORVANE_MCP_TOKEN=") + kToken, "SORVANE_MCP_ALLOW_REVEAL=true"});
  EXPECT_NE(names().find("get_secret"), std::string::npos);
}

}  // namespace
}  // namespace sorvane::test
