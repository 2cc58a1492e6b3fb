#include <gtest/gtest.h>

#include <set>

#include "support/corpus.h"
#include "vault/deployment_policy.h"
#include "vault/env_export.h"
#include "vault/env_value.h"
#include "vault/run_control.h"
#include "vault/vault.h"

namespace sorvane::vault {
namespace {

using Words = std::optional<std::vector<std::string>>;
using Target = std::optional<std::string>;

std::string refusal(const Target& environment, const Target& requested, const Words& allowed,
                    std::string_view value = "pw") {
  try {
    checkDeployment({environment, requested, allowed}, value);
    return "";
  } catch (const DeploymentPolicyError& error) {
    return error.sentence();
  }
}

TEST(DeploymentPolicy, theFirstBrokenRuleDecides) {
  const Target none, dev = "development", stage = "staging", prod = "production", odd = "Production";
  const Words unlimited, forDev{{"development"}}, forProd{{"production"}}, forBoth{{"development", "staging"}},
      bad{{"prod"}}, empty{std::vector<std::string>{}};
  const std::string testKey =
                        "sk_"
                        "test_" +
                        std::string(16, 'a'),
                    liveKey =
                        "rk_"
                        "live_" +
                        std::string(16, '0');
  const struct {
    Target environment, requested;
    Words allowed;
    std::string value, sentence;
  } cases[] = {
      {none, none, unlimited, "pw", ""},
      {none, none, unlimited, liveKey, ""},
      {none, none, forDev, "pw", "Set a target for this environment before using protected keys."},
      {none, dev, unlimited, "pw", "Set a target for this environment before using protected keys."},
      {odd, none, bad, "pw", "Invalid deployment target."},
      {prod, odd, forProd, "pw", "Invalid deployment target."},
      {none, none, bad, "pw", "Invalid key deployment policy."},
      {prod, none, unlimited, "pw", "Declare the deployment target before using this environment."},
      {prod, dev, unlimited, "pw", "The requested deployment target does not match this environment."},
      {prod, prod, unlimited, "pw",
       "Limit where every selected key version can be used before using this environment."},
      {prod, prod, forDev, "pw", "A selected key version is not allowed in this deployment target."},
      {prod, prod, empty, "pw", "A selected key version is not allowed in this deployment target."},
      {stage, stage, forBoth, "pw", ""},
      {prod, prod, forProd, testKey, "The provider key mode does not match the deployment target."},
      {dev, dev, forBoth, testKey, ""},
      {dev, dev, forBoth, liveKey, "The provider key mode does not match the deployment target."},
      {prod, prod, forProd, liveKey, ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(refusal(c.environment, c.requested, c.allowed, c.value), c.sentence)
        << c.environment.value_or("-") << "/" << c.requested.value_or("-");
  }
}

TEST(DeploymentPolicy, onlyTheWholePatternIsAProviderKey) {
  const std::string tail(16, 'x');
  EXPECT_EQ(providerKeyMode("pk_"
                            "live_" +
                            tail),
            ProviderKeyMode::live);
  EXPECT_EQ(providerKeyMode("sk_"
                            "test_" +
                            tail + "9Z"),
            ProviderKeyMode::test);
  for (const std::string& value : {"sk_"
                                   "live_" +
                                       tail.substr(1),
                                   "sk_"
                                   "live_" +
                                       tail + "\n",
                                   " sk_"
                                   "live_" +
                                       tail,
                                   "sk_"
                                   "live_" +
                                       tail + "-",
                                   "ak_"
                                   "live_" +
                                       tail,
                                   "sk_"
                                   "prod_" +
                                       tail,
                                   std::string()}) {
    EXPECT_EQ(providerKeyMode(value), ProviderKeyMode::none) << value;
  }
}

TEST(DeploymentPolicy, targetsAreCheckedWhenTheyAreEntered) {
  const std::string testKey =
                        "sk_"
                        "test_" +
                        std::string(16, 'a'),
                    liveKey =
                        "sk_"
                        "live_" +
                        std::string(16, 'a');
  const auto entry = [](const Words& targets, const std::string& value) -> std::string {
    try {
      checkTargetsAtEntry(targets, value);
      return "";
    } catch (const VaultError& error) {
      return error.sentence();
    }
  };
  EXPECT_EQ(entry({}, testKey), "");
  EXPECT_EQ(entry({{"development", "staging"}}, testKey), "");
  EXPECT_EQ(entry({{"staging", "production"}}, testKey),
            "This test key cannot be allowed in Production. Choose Development or Staging.");
  EXPECT_EQ(entry({{"production"}}, liveKey), "");
  EXPECT_EQ(entry({{"staging", "production"}}, liveKey),
            "This live key can only be allowed in Production. Choose Production for the new version.");
  EXPECT_EQ(parseTargets({"production", "development", "production"}),
            (std::vector<std::string>{"development", "production"}));
  for (const std::vector<std::string>& wrong : {std::vector<std::string>{}, {"Production"}, {"development", ""}}) {
    try {
      parseTargets(wrong);
      ADD_FAILURE();
    } catch (const VaultError& error) {
      EXPECT_EQ(error.sentence(), "Choose one or more of development, staging, production.");
    }
  }
}

base::SecretText line(std::string_view name, std::string_view value) {
  base::SecretText out;
  appendEnvLine(out, name, value);
  return out;
}

TEST(EnvValue, isBareOnlyWhenNothingInItNeedsQuotes) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"plain-1.2/3:@,;!?*&|()[]{}<>~%^+", "V=plain-1.2/3:@,;!?*&|()[]{}<>~%^+"},
      {"", "V=\"\""},
      {"a b", "V=\"a b\""},
      {"a=b", "V=\"a=b\""},
      {"#", "V=\"#\""},
      {"it's", "V=\"it's\""},
      {"say \"hi\"", "V=\"say \\\"hi\\\"\""},
      {"$HOME`x`\\", "V=\"\\$HOME\\`x\\`\\\\\""},
      {"one\ntwo\r\tthree", "V=\"one\\ntwo\\r\\tthree\""},
      {"bell\a", "V=\"bell\a\""},
      {"nel\xC2\x85", "V=\"nel\xC2\x85\""},
      {"em\xE2\x80\x83space", "V=\"em\xE2\x80\x83space\""},
      {"\xC3\xA9\xF0\x9F\x94\x91", "V=\xC3\xA9\xF0\x9F\x94\x91"},
  };
  for (const auto& [value, written] : cases) {
    EXPECT_EQ(line("V", value).view(), written);
    EXPECT_EQ(envLineValue(line("V", value).view().substr(2)).view(), value);
  }
}

TEST(EnvExport, writesEachFormatFromTheSameLines) {
  std::vector<base::SecretText> lines;
  lines.emplace_back("# generated");
  lines.push_back(line("B", "it's $5\n\"x\""));
  lines.push_back(line("A", "a=b"));
  lines.emplace_back("nothing assigned");
  EXPECT_EQ(convertLines(lines, EnvExportFormat::env).view(),
            "# generated\nB=\"it's \\$5\\n\\\"x\\\"\"\nA=\"a=b\"\nnothing assigned\n");
  EXPECT_EQ(convertLines(lines, EnvExportFormat::shell).view(), "export B='it'\\''s $5\n\"x\"'\nexport A='a=b'\n");
  EXPECT_EQ(convertLines(lines, EnvExportFormat::json).view(),
            "{\n  \"A\": \"a=b\",\n  \"B\": \"it's $5\\n\\\"x\\\"\"\n}");
  EXPECT_EQ(convertLines({}, EnvExportFormat::json).view(), "{}");
}

TEST(RunControl, knowsTheNamesThatLoadCodeOrRedirectTraffic) {
  // Names of the corpus that only choose a display, a language, a bus or a configuration; they start no code.
  const std::set<std::string> harmless{
      "DISPLAY",       "LANG",           "LC_ALL",      "POSIXLY_CORRECT", "DBUS_SESSION_BUS_ADDRESS",
      "SSH_AUTH_SOCK", "GPG_AGENT_INFO", "DOCKER_HOST", "KUBECONFIG",      "AWS_CONFIG_FILE"};
  int cases = 0;
  for (const auto& row : test::tableOfFile(test::corpus("exec_env/dangerous_env.tsv"))) {
    std::string name = row[0];
    if (name.ends_with('*')) name.back() = 'X';
    EXPECT_EQ(isRunControlName(name), !harmless.contains(name)) << name;
    ++cases;
  }
  EXPECT_EQ(cases, 129);
  for (const char* name :
       {"SORVANE_MCP_TOKEN", "YARN_X", "POETRY_X", "GIT_CONFIG_KEY_0", "BUN_INSTALL", "MALLOC_CHECK_"}) {
    EXPECT_TRUE(isRunControlName(name)) << name;
  }
  for (const char* name : {"API_KEY", "path", "MY_PATH", "PATHX", "GITHUB_TOKEN", "LDAP_URL", "PIPELINE", ""}) {
    EXPECT_FALSE(isRunControlName(name)) << name;
  }
}

}  // namespace
}  // namespace sorvane::vault
