// Connections of agent clients: their files, the ledger, and what disconnecting gives back.

#include "clients/connections.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

#include "clients/config_file.h"
#include "support/doubles.h"
#include "vault/sealed_settings.h"

namespace sorvane::clients {
namespace {

namespace fs = std::filesystem;

class MemorySettings final : public vault::SealedSettings {
 public:
  std::optional<base::SecretText> load(std::string_view name) override {
    const auto found = records.find(name);
    return found == records.end() ? std::nullopt : std::optional(base::SecretText(found->second));
  }
  void save(std::string_view name, std::string_view record) override {
    if (record.size() > kMaxSettingBytes || --savesLeft < 0) {
      throw vault::SettingError(vault::SettingError::Case::storage, "The setting could not be saved.");
    }
    records.insert_or_assign(std::string(name), std::string(record));
  }
  void remove(std::string_view name) override { records.erase(records.find(name)); }

  std::map<std::string, std::string, std::less<>> records;
  int savesLeft = 1000;
};

class AgentClients : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const AgentClient& client : agentClients()) fs::create_directories(client.userFile(folders_).parent_path());
    fs::create_directories(folders_.home / ".claude");
    fs::create_directories(support());
    fs::create_directories(project());
  }
  fs::path support() { return folder_.path() / "support"; }
  fs::path project() { return folder_.path() / "project"; }
  void write(const fs::path& path, std::string_view text) { std::ofstream(path) << text; }
  static std::string textOf(const fs::path& path) {
    if (!fs::is_regular_file(path)) return {};
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  static mode_t modeOf(const fs::path& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
  }
  Connections::Grant grant(const std::string& id = "ID-1") {
    return {id, base::SecretText("made-up-token-" + id), false};
  }
  fs::path fileOf(const std::string& client) { return clientNamed(client)->userFile(folders_); }

  test::TemporaryFolder folder_;
  const Folders folders_{folder_.path() / "home", folder_.path() / "home/.config", folder_.path() / "home/.codex",
                         folder_.path() / "home/.config"};
  base::SystemFiles files_;
  MemorySettings settings_;
  Connections connections_{{folders_, folder_.path() / "support", true, "/opt/sorvane/sorvane"}, files_, settings_};
};

TEST(AgentClientFiles, lieWhereEachClientLooksThoughTheSystemHasAPlaceOfItsOwn) {
  const Folders folders{"/h", "/h/Library/Application Support", "/c", "/h/.config"};
  for (const auto& [client, file] : std::map<std::string, std::string>{
           {"claude-desktop", "/h/Library/Application Support/Claude/claude_desktop_config.json"},
           {"vscode", "/h/Library/Application Support/Code/User/mcp.json"},
           {"codex", "/c/config.toml"},
           {"gemini-cli", "/h/.gemini/settings.json"},
           {"opencode", "/h/.config/opencode/opencode.json"},
           {"zed", "/h/.config/zed/settings.json"}}) {
    EXPECT_EQ(clientNamed(client)->userFile(folders), file) << client;
  }
}

TEST_F(AgentClients, everyClientIsConnectedAndDisconnectedWithoutATrace) {
  for (const AgentClient& client : agentClients()) {
    SCOPED_TRACE(client.word);
    const bool toml = client.format == ConfigFormat::toml;
    for (const std::string& before :
         {std::string(), std::string(toml ? "# mine\nmodel = \"x\"\n" : "{\n  // mine\n  \"a\": [1, 2,],\n}\n")}) {
      const fs::path file = fileOf(std::string(client.word));
      if (before.empty())
        fs::remove(file);
      else
        write(file, before), fs::permissions(file, fs::perms(0600));
      const auto target = connections_.target(std::string(client.word), "");
      ASSERT_TRUE(connections_.plan(target).tokenInFile);
      connections_.connect(connections_.plan(target), grant());
      const auto entry = readEntry(client.format, textOf(file), client.path());
      ASSERT_TRUE(entry);
      const std::string shown = entry->dump();
      EXPECT_NE(shown.find("/opt/sorvane/sorvane"), std::string::npos);
      EXPECT_NE(shown.find(R"("SORVANE_MCP_TOKEN":"made-up-token-ID-1")"), std::string::npos);
      EXPECT_EQ(modeOf(file), 0600U);
      EXPECT_EQ(connections_.status(target).state, Connections::State::connected);
      EXPECT_EQ(connections_.disconnect(target), Connections::Undone::restored);
      EXPECT_EQ(fs::exists(file), !before.empty());
      EXPECT_EQ(textOf(file), before);
      EXPECT_EQ(connections_.status(target).state, Connections::State::absent);
    }
  }
}

TEST_F(AgentClients, aProjectsFileAndOneThatOthersCanReadHoldNoToken) {
  write(fileOf("cursor"), "{}");
  fs::permissions(fileOf("cursor"), fs::perms(0644));
  for (const auto& [client, where] :
       {std::pair<std::string, std::string>{"claude-code", project().string()}, {"cursor", ""}}) {
    const auto target = connections_.target(client, where);
    connections_.connect(connections_.plan(target), grant());
    const std::string text = textOf(connections_.status(target).file);
    EXPECT_EQ(text.find("made-up-token"), std::string::npos);
    EXPECT_NE(text.find("--grant"), std::string::npos);
    const fs::path token = support() / "clients/ID-1.token";
    EXPECT_EQ(textOf(token), "made-up-token-ID-1");
    EXPECT_EQ(modeOf(token), 0600U);
    connections_.disconnect(target);
    EXPECT_FALSE(fs::exists(token));
  }
  EXPECT_EQ(modeOf(fileOf("cursor")), 0644U);
  EXPECT_THROW(connections_.target("windsurf", project().string()), ConnectionError);
  EXPECT_THROW(connections_.target("claude-code", "project"), ConnectionError);
}

TEST_F(AgentClients, connectingAgainKeepsWhatStoodThereBeforeUs) {
  const std::string before = R"({"mcpServers": {"sorvane": {"command": "somebody-else"}, "other": {}}})";
  write(fileOf("cursor"), before);
  fs::permissions(fileOf("cursor"), fs::perms(0600));
  const auto target = connections_.target("cursor", "");
  EXPECT_TRUE(connections_.plan(target).replaces);
  connections_.connect(connections_.plan(target), grant("ID-1"));
  EXPECT_FALSE(connections_.plan(target).replaces) << "our own entry is nobody else's";
  connections_.connect(connections_.plan(target), grant("ID-2"));
  EXPECT_EQ(connections_.status(target).grantId, "ID-2");
  EXPECT_EQ(connections_.disconnect(target), Connections::Undone::restored);
  EXPECT_EQ(textOf(fileOf("cursor")), before);
  EXPECT_EQ(textOf(fileOf("cursor").string() + ".sorvane-backup"), before);
}

TEST_F(AgentClients, anEntryThatSomebodyChangedIsLeftAlone) {
  const auto target = connections_.target("cursor", "");
  connections_.connect(connections_.plan(target), grant());
  std::string text = textOf(fileOf("cursor"));
  text.replace(text.find("\"mcp\""), 5, "\"xyz\"");
  write(fileOf("cursor"), text);
  EXPECT_EQ(connections_.status(target).state, Connections::State::entryChanged);
  EXPECT_EQ(connections_.disconnect(target), Connections::Undone::leftChanged);
  EXPECT_EQ(textOf(fileOf("cursor")), text);
  EXPECT_THROW(connections_.disconnect(target), ConnectionError) << "it is off the record";
}

TEST_F(AgentClients, aFileThatCannotBeEditedIsLeftAsItIsAndNothingIsRecorded) {
  const fs::path file = fileOf("cursor");
  const auto target = connections_.target("cursor", "");
  const auto refused = [&](const std::string& what) {
    const std::string before = textOf(file);
    EXPECT_THROW(connections_.connect(connections_.plan(target), grant()), base::Error) << what;
    EXPECT_EQ(textOf(file), before) << what;
    EXPECT_EQ(connections_.status(target).grantId, "") << what;
    fs::remove(file);
  };
  write(file, "{\"mcpServers\": {");
  try {
    connections_.plan(target);
    FAIL() << "it was planned";
  } catch (const ConnectionError& error) {
    EXPECT_TRUE(error.sentence().starts_with(file.string() + ": The configuration file is damaged: in line 1 "));
  }
  refused("half-written");
  write(file, "{\"mcpServers\": {}, \"mcpServers\": {}}");
  refused("duplicate keys on the way");
  write(file, std::string(kMaxConfigBytes + 1, ' '));
  refused("too large");
  write(file, "{}");
  fs::permissions(file, fs::perms(0400));
  refused("read-only");
  fs::create_directory(file);
  refused("a folder");
  fs::create_symlink("nowhere", file);
  refused("a link to nothing");
  ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
  EXPECT_THROW(connections_.connect(connections_.plan(target), grant()), base::Error)
      << "a pipe must not hold anybody up";
}

TEST_F(AgentClients, aLinkIsKeptAndTheFileBehindItEdited) {
  const fs::path real = folder_.path() / "dotfiles.json";
  write(real, "{}");
  fs::permissions(real, fs::perms(0600));
  fs::create_symlink(real, fileOf("cursor"));
  const auto target = connections_.target("cursor", "");
  connections_.connect(connections_.plan(target), grant());
  EXPECT_TRUE(fs::is_symlink(fileOf("cursor")));
  EXPECT_NE(textOf(real).find("--grant"), std::string::npos) << "where the link leads may be shared";
  connections_.disconnect(target);
  EXPECT_EQ(textOf(real), "{}");
}

TEST_F(AgentClients, anEditIsDoneAnewWhenTheClientWroteItsFileMeanwhile) {
  const fs::path file = fileOf("cursor");
  write(file, "{}");
  int edits = 0;
  EXPECT_TRUE(updateConfigFile(file, [&](const std::string& text) {
    if (++edits == 1) write(file, "{\"fresh\": true}");
    return std::optional(text + "\n");
  }));
  EXPECT_EQ(edits, 2);
  EXPECT_EQ(textOf(file), "{\"fresh\": true}\n");
  EXPECT_THROW(updateConfigFile(file,
                                [&](const std::string& text) {
                                  write(file, text + ".");
                                  return std::optional(text + "\n");
                                }),
               ConfigFileError);
}

TEST_F(AgentClients, aLedgerThatCannotBeSavedLeavesTheFileAsItWas) {
  for (int saves = 0; saves < 3; ++saves) {
    write(fileOf("cursor"), "{}");
    fs::permissions(fileOf("cursor"), fs::perms(0600));
    settings_.savesLeft = saves;
    const auto target = connections_.target("cursor", "");
    try {
      connections_.connect(connections_.plan(target), grant());
      settings_.savesLeft = 1000;
      connections_.disconnect(target);
    } catch (const base::Error&) {
    }
    settings_.savesLeft = 1000;
    EXPECT_EQ(textOf(fileOf("cursor")), "{}") << saves;
  }
}

TEST(Ledger, growsBeyondOneSettingAndShrinksAgain) {
  MemorySettings settings;
  InstallLedger ledger(settings);
  std::vector<LedgerRow> rows;
  for (int i = 0; i < 40; ++i) {
    rows.push_back({"client" + std::to_string(i), "/project", "/file", "id", std::string(200, 'u'), i % 2 == 0});
    ledger.put(rows.back());
  }
  EXPECT_EQ(InstallLedger(settings).rows(), rows);
  EXPECT_GT(settings.records.size(), 2U);
  for (const LedgerRow& row : rows) ledger.remove(row.client, row.project);
  EXPECT_TRUE(ledger.rows().empty());
  EXPECT_EQ(settings.records.size(), 1U) << "parts that no ledger names are removed";
  settings.records.begin()->second = "{";
  EXPECT_THROW(ledger.rows(), vault::SettingError);
}

}  // namespace
}  // namespace sorvane::clients
