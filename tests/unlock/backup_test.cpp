// Backup files: what an independent writer made opens, what is written opens there, and every fault has its sentence.
#include <gtest/gtest.h>
#include <array>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>

#include "base/codec.h"
#include "base/date.h"
#include "crypto/digest.h"
#include "support/corpus.h"
#include "support/doubles.h"
#include "unlock/backup.h"
#include "unlock/backup_recovery_key.h"

namespace sorvane::unlock {
namespace {

using base::SecretText;
using Json = nlohmann::json;

constexpr std::string_view kPassphrase = "a made-up passphrase";

std::string golden(const std::string& name) {
  return test::textOfFile(test::corpus("backup/" + name));
}

BackupSecret secretOf(const Json& entered) {
  BackupSecret secret;
  const auto take = [&](const char* key, std::optional<SecretText>& out) {
    if (entered.contains(key)) out.emplace(entered[key].get<std::string>());
  };
  take("passphrase", secret.passphrase);
  take("recoveryKey", secret.recoveryKey);
  return secret;
}

BackupSecret withPassphrase(std::string_view text) {
  BackupSecret secret;
  secret.passphrase.emplace(text);
  return secret;
}

/// What refuses the file; empty when it opens.
std::string refusalOf(std::string_view file, const BackupSecret& secret) {
  try {
    openBackup(parseBackup(file), secret);
  } catch (const base::Error& error) {
    return error.sentence();
  }
  return {};
}

BackupPayload samplePayload(const char* name = "payload.json") {
  std::string text = golden(name);
  text.pop_back();
  return decodePayload(text);
}

BackupChoice choiceOf(BackupProtection protection, bool withKey = false) {
  BackupChoice choice;
  choice.protection = protection;
  if (protection == BackupProtection::passphrase) choice.passphrase = SecretText(kPassphrase);
  choice.withRecoveryKey = withKey;
  return choice;
}

TEST(BackupFormat, opensEveryFileThatTheSecondWriterMade) {
  int opened = 0;
  for (const Json& row : Json::parse(golden("golden.json"))) {
    const std::string name = row["name"];
    std::string expected = golden(row["payload"].get<std::string>() + ".json");
    expected.pop_back();
    for (const Json& entered : row["entered"]) {
      OpenedBackup backup = openBackup(parseBackup(golden(name + ".sorvane-backup")), secretOf(entered));
      EXPECT_FALSE(backup.binding);
      if (name == "v2-none-cloud-cache") {
        EXPECT_EQ(backup.payload.cloudCache->view(), R"({"environments":[{"a":"x/y","b":1}],"secrets":[]})");
        backup.payload.cloudCache.reset();
      }
      EXPECT_EQ(encodePayload(backup.payload).view(), expected) << name;
      ++opened;
    }
  }
  EXPECT_EQ(opened, 18);
}

TEST(BackupFormat, passesTheCloudsStateThroughAsItIsWritten) {
  const auto through = [](const std::string& cache) -> std::string {
    std::string text = golden("payload.json");
    text.pop_back();
    text.insert(1, "\"cloudCache\":" + cache + ",");
    try {
      return std::string(decodePayload(text).cloudCache->view());
    } catch (const CryptoError& error) {
      return error.sentence();
    }
  };
  EXPECT_EQ(through(R"({ "b" : [1e3, -0, 1.50, 12345678901234567890], "a\u00e9\/" : {"y":null,"x":"\ud83d\udd11"} })"),
            "{\"a\u00e9/\":{\"x\":\"\U0001f511\",\"y\":null},\"b\":[1e3,-0,1.50,12345678901234567890]}");
  for (const char* const cache : {R"({"a":1,"b":2,"a":1})", R"({"a":1,"\u0061":1})", R"([{"a":1}])", "{\"a\":01}"}) {
    EXPECT_EQ(through(cache), "the backup file is corrupt or not an sorvane backup") << cache;
  }
}

TEST(BackupFormat, keepsWhatAnUploadedFileSaysOfItsWraps) {
  const auto with = [](const std::string& wraps) {
    return "{\"payload\":\"AA==\",\"signature\":\"AA==\",\"vaultId\":\"v\",\"wraps\":[" + wraps + "]}";
  };
  const std::string passphrase =
      R"({"ct":"AA==","kind":"passphrase","params":{"kdf":"argon2id","salt":"AAEC","memoryKiB":65536,"iterations":3,)"
      R"("parallelism":1}})";
  const ParsedBackup parsed = parseBackup(with(passphrase));
  const auto& params = std::get<CloudBackupEnvelope>(parsed).wraps.at(0).params;
  EXPECT_EQ(params.salt, (base::Bytes{0, 1, 2}));
  EXPECT_EQ(params.memoryKiB, 65536);
  EXPECT_EQ(params.iterations, 3);
  EXPECT_EQ(refusalOf(with(passphrase), {}), CryptoError(CryptoError::Case::untrustedBackup).sentence());
  EXPECT_EQ(refusalOf(with(""), {}), "Check that this is an sorvane backup file.") << "nothing could open it";
}

TEST(BackupFormat, refusesEveryFaultWithItsSentence) {
  int cases = 0;
  std::ifstream kit(test::corpus("backup/faults.jsonl"));
  for (std::string line; std::getline(kit, line); ++cases) {
    const Json fault = Json::parse(line);
    const base::Bytes file = *base::parseBase64(fault["file"].get<std::string>());
    std::string refusal = refusalOf(base::textOf(file), secretOf(fault["entered"]));
    refusal.erase(std::min(refusal.size(), refusal.find("; its group")));  // which of them is told elsewhere
    EXPECT_EQ(refusal, fault["expected"].get<std::string>()) << fault["name"];
  }
  EXPECT_EQ(cases, 501);
}

TEST(BackupFormat, takesChecksumsOfLargePayloadsInEitherForm) {
  // Larger than the runs that a payload is digested in, with slashes wherever a run may end.
  BackupPayload payload = samplePayload();
  for (int version = 10; version < 20; ++version) {
    payload.values.push_back({payload.secrets[0].id, version, SecretText(std::string(300'000, '/'))});
  }
  const SecretText plain = encodePayload(payload);
  std::string escaped;
  for (const char c : plain.view()) escaped += c == '/' ? std::string("\\/") : std::string(1, c);
  EXPECT_EQ(payloadDigest(payload, Slashes::plain), crypto::sha256(plain.bytes()));
  EXPECT_EQ(payloadDigest(payload, Slashes::escaped), crypto::sha256(base::bytesOf(escaped)));
}

TEST(BackupFormat, refusesEverySingleChangedBitOfASealedFile) {
  // One wrap and a small cost: every part of the file counts, and each of the keys can be derived.
  const BackupSecret secret = withPassphrase("correct horse caf\u00e9 battery");
  for (const char* name : {"v1-flip.sorvane-backup", "v2-flip.sorvane-backup"}) {
    const std::string file = golden(name);
    ASSERT_EQ(refusalOf(file, secret), "");
    for (std::size_t bit = 0; bit < file.size() * 8; ++bit) {
      std::string altered = file;
      altered[bit / 8] = static_cast<char>(altered[bit / 8] ^ (1 << bit % 8));
      EXPECT_NE(refusalOf(altered, secret), "") << name << " at " << altered.substr(bit / 8, 20);
    }
    for (std::size_t size = 0; size < file.size(); ++size) EXPECT_NE(refusalOf(file.substr(0, size), secret), "");
  }
}

TEST(BackupFormat, showsNothingOfTheRecordsOfASealedFileThatWasChanged) {
  const BackupExport made = exportBackup(samplePayload(), choiceOf(BackupProtection::recoveryKey));
  BackupSecret secret;
  secret.recoveryKey = made.recoveryKey->clone();
  const std::string file(made.data.view());
  ASSERT_EQ(refusalOf(file, secret), "");
  for (std::size_t bit = 0; bit < file.size() * 8; ++bit) {
    std::string altered = file;
    altered[bit / 8] = static_cast<char>(altered[bit / 8] ^ (1 << bit % 8));
    const std::string refusal = refusalOf(altered, secret);
    ASSERT_NE(refusal, "") << "at " << altered.substr(bit / 8, 20);
    for (const char* const shown : {"MADE_UP", "made-up", "Second", "sec_0"}) {
      ASSERT_EQ(refusal.find(shown), std::string::npos) << refusal;
      ASSERT_EQ(altered.find(shown), std::string::npos) << "the records lie in the file as they are";
    }
  }
}

/// What the second reader finds in a file; nullopt when this computer has no Python with the libraries it needs.
std::optional<std::string> readByPeer(const std::string& file, const Json& entered) {
  std::string python;
  // A python3 of one's own may stand before the system's, which has the libraries.
  for (const char* const candidate : {"python3", "/usr/bin/python3"}) {
    const std::string look = std::string(candidate) + " -c 'import cryptography' 2>/dev/null";
    if (python.empty() && std::system(look.c_str()) == 0) python = candidate;
  }
  if (python.empty()) return std::nullopt;
  const test::TemporaryFolder folder;
  const auto write = [&](const char* name, std::string_view text) {
    std::ofstream(folder.path() / name, std::ios::binary) << text;
    return (folder.path() / name).string();
  };
  const std::string out = (folder.path() / "out").string();
  const std::string command = python + " -B " SORVANE_SOURCE "/tests/peers/backup/backup_peer.py open " +
                              write("file", file) + " <" + write("secret", entered.dump()) + " >" + out;
  EXPECT_EQ(std::system(command.c_str()), 0);
  return test::textOfFile(out);
}

TEST(BackupExporting, writesWhatTheSecondReaderOpens) {
  const struct {
    BackupProtection protection;
    bool withKey;
    const char* payload;
  } cases[] = {{BackupProtection::none, false, "payload.json"},
               {BackupProtection::passphrase, false, "payload.json"},
               {BackupProtection::passphrase, true, "payload-limited.json"},
               {BackupProtection::recoveryKey, false, "payload-limited.json"}};
  for (const auto& [protection, withKey, payload] : cases) {
    const BackupExport made = exportBackup(samplePayload(payload), choiceOf(protection, withKey));
    const std::string file(made.data.view());
    EXPECT_EQ(made.secretCount, 2);
    ASSERT_EQ(made.recoveryKey.has_value(), withKey || protection == BackupProtection::recoveryKey);
    std::vector<Json> ways;
    if (protection == BackupProtection::none) ways.push_back(Json::object());
    if (protection == BackupProtection::passphrase) ways.push_back({{"passphrase", kPassphrase}});
    if (made.recoveryKey) ways.push_back({{"recoveryKey", std::string(made.recoveryKey->view())}});
    for (const Json& entered : ways) {
      const auto read = readByPeer(file, entered);
      if (!read) GTEST_SKIP() << "python3-cryptography is missing";
      EXPECT_EQ(*read, golden(payload)) << entered.dump();
      EXPECT_EQ(refusalOf(file, secretOf(entered)), "");
    }
    if (protection != BackupProtection::none) {
      EXPECT_EQ(file.find("MADE_UP"), std::string::npos);
      const Json json = Json::parse(file);
      EXPECT_EQ(json["version"], 2);
      EXPECT_EQ(json.contains("argon2MemoryKiB"), protection == BackupProtection::passphrase);
      if (protection == BackupProtection::passphrase) {
        EXPECT_EQ(json["argon2MemoryKiB"], 65536);
        EXPECT_EQ(json["argon2Iterations"], 3);
      }
    }
    EXPECT_EQ(Json::parse(file).dump(), file) << "sorted keys and no white space";
  }
}

std::string exportRefusal(BackupPayload payload, const BackupChoice& choice) {
  try {
    exportBackup(std::move(payload), choice);
  } catch (const base::Error& error) {
    return error.sentence();
  }
  return {};
}

TEST(BackupExporting, refusesWeakPassphrasesAndOpenFilesOfLimitedKeys) {
  BackupChoice choice = choiceOf(BackupProtection::passphrase);
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"", "Enter a backup passphrase."},
      {"elevenchars", "Use a backup passphrase of at least 12 characters."},
      // Six characters in twelve code points.
      {"e\u0301e\u0301e\u0301e\u0301e\u0301e\u0301", "Use a backup passphrase of at least 12 characters."},
      {"twelve chars", ""},
      {"\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9", ""}};
  for (const auto& [passphrase, sentence] : cases) {
    choice.passphrase = SecretText(passphrase);
    EXPECT_EQ(exportRefusal(samplePayload(), choice), sentence) << passphrase;
  }
  EXPECT_EQ(exportRefusal(samplePayload("payload-limited.json"), choiceOf(BackupProtection::none)),
            "This vault has key versions limited to deployment targets, and a backup without encryption would expose "
            "them to anyone who can read the file. Choose a passphrase or recovery key backup.");
  EXPECT_THROW(backupProtectionOf("None"), BackupError);
  EXPECT_EQ(backupProtectionOf(word(BackupProtection::recoveryKey)), BackupProtection::recoveryKey);
}

TEST(BackupExporting, opensUnderAPassphraseInEveryUnicodeForm) {
  BackupChoice choice = choiceOf(BackupProtection::passphrase);
  choice.passphrase = SecretText("caf\u00e9 caf\u00e9 caf\u00e9");
  const BackupExport made = exportBackup(samplePayload(), choice);
  EXPECT_EQ(refusalOf(made.data.view(), withPassphrase("cafe\u0301 cafe\u0301 cafe\u0301")), "");
}

TEST(BackupExporting, stopsWhereTheCallerSaysSo) {
  for (const BackupStep stop :
       {BackupStep::sealing, BackupStep::wrapping, BackupStep::encoding, BackupStep::verifying}) {
    const auto stopping = [&](BackupStep step) {
      if (step == stop) throw BackupError(sentence::kExportCancelled);
    };
    EXPECT_THROW(exportBackup(samplePayload(), choiceOf(BackupProtection::recoveryKey), stopping), BackupError);
  }
}

TEST(BackupExporting, namesTheLimitAtTheByteBehindIt) {
  std::string file = golden("v2-none.sorvane-backup");
  file.resize(268'435'456, ' ');
  EXPECT_EQ(refusalOf(file, {}), "");
  file.push_back(' ');
  EXPECT_EQ(refusalOf(file, {}), "Backup files larger than 256 MB are not supported.");
  file = {};
  // A value that fills a file without encryption to one byte more than it may have.
  const auto withValueOf = [](std::size_t size) {
    BackupPayload payload = samplePayload();
    payload.values.clear();
    payload.values.push_back({payload.secrets[0].id, 2, {}});
    payload.values[0].value.resize(size);
    std::memset(payload.values[0].value.data(), 'x', size);
    return payload;
  };
  const std::size_t frame = exportBackup(withValueOf(1), choiceOf(BackupProtection::none)).data.size() - 1;
  EXPECT_EQ(exportRefusal(withValueOf(kMaxBackupBytes - frame + 1), choiceOf(BackupProtection::none)),
            "This vault exceeds the 256 MB backup limit.");
}

TEST(BackupExporting, runsAloneAtATime) {
  BackupOperations operations;
  {
    const auto turn = operations.begin();
    try {
      operations.begin();
      ADD_FAILURE();
    } catch (const BackupError& error) {
      EXPECT_EQ(error.sentence(), "Another backup operation is in progress.");
    }
  }
  EXPECT_NO_THROW(operations.begin());
}

TEST(RecoveryKey, isReadAsAPersonTypesIt) {
  base::Bytes bytes(kRecoveryKeyBytes);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i * 13 + 200);
  const std::string text(recoveryKeyText(bytes).view());
  ASSERT_EQ(text.size(), 38U);
  std::string lower = text, bare, spaced;
  for (char& c : lower) c = static_cast<char>(std::tolower(c));
  for (const char c : text) {
    if (c != '-') bare += c;
    spaced += c == '-' ? std::string(" \u2014 ") : std::string(1, c);
  }
  std::string turkish = text;
  for (std::size_t at; (at = turkish.find('I')) != std::string::npos;) turkish.replace(at, 1, "\u0131");
  for (const std::string& typed : {text, lower, bare, spaced, "  " + text + "\n", turkish, "(" + text + ")."}) {
    const auto read = recoveryKeyBytes(typed);
    ASSERT_TRUE(read) << typed;
    EXPECT_EQ(base::hexLower(read->bytes()), base::hexLower(bytes)) << typed;
  }
  for (const std::string& typed :
       {text + "A", bare.substr(1), text + "0", text + "8", text + "\u00e4", text + "\xff", std::string(24, 'A'),
        std::string(25, 'A') + "B", std::string(27, 'A'), std::string(26, 'A') + "=1", std::string()}) {
    EXPECT_FALSE(recoveryKeyBytes(typed)) << typed;
  }
  EXPECT_TRUE(recoveryKeyBytes(std::string(26, 'A')));
  EXPECT_FALSE(recoveryKeyBytes(std::string(25, 'A') + "Z")) << "bits behind the last byte";
}

TEST(RecoveryKey, saysWhichGroupIsWrongOnlyWhenItsLengthTells) {
  const std::string key = "ABCDE-FGHIJ-KLMNO-PQRST-UVWXY-Z2345-67";
  EXPECT_EQ(suspectRecoveryGroup(key), std::nullopt);
  EXPECT_EQ(suspectRecoveryGroup("ABCDE-FGHI-KLMNO-PQRST-UVWXY-Z2345-67"), 2);
  try {
    recoveryWrappingKey("ABCDE-FGHI-KLMNO-PQRST-UVWXY-Z2345-67");
    ADD_FAILURE() << "a key that is too short";
  } catch (const CryptoError& error) {
    EXPECT_EQ(error.sentence(), "that doesn't look like a valid recovery key; its group 2 has a wrong length");
  }
  EXPECT_EQ(suspectRecoveryGroup("abcde fghij klmno pqrst uvwxy z2345 6"), 7);
  EXPECT_EQ(suspectRecoveryGroup("ABCDE-FGHI-KLMN-PQRST-UVWXY-Z2345-67"), std::nullopt) << "two of them";
  EXPECT_EQ(suspectRecoveryGroup("ABCDEFGHIJKLMNOPQRSTUVWXYZ23456"), std::nullopt);
  EXPECT_NE(newRecoveryKey().view(), newRecoveryKey().view());
}

TEST(BackupFormat, showsNamesThatNothingActsOn) {
  EXPECT_EQ(sentence::valueUnreadable("K\x1b[2J\u202eEY").find_first_of("\x1b\n"), std::string::npos);
  EXPECT_EQ(sentence::valueUnreadable("K\u202eEY").find("\u202e"), std::string::npos);
  EXPECT_NE(sentence::variableNotAccepted("A\n", "b").find("A\\n, in b"), std::string::npos);
}

TEST(BackupFormat, hasTheTextOfEveryCryptoError) {
  using Case = CryptoError::Case;
  const std::pair<Case, std::string_view> cases[] = {
      {Case::sealFailed, "encryption failed"},
      {Case::badRecoveryKey, "that doesn't look like a valid recovery key"},
      {Case::wrongSecret, "wrong passphrase or recovery key"},
      {Case::malformedBackup, "the backup file is corrupt or not an sorvane backup"},
      {Case::missingDataKey, "the vault's metadata key is missing; restore from a backup"},
      {Case::newerBackupVersion, "this backup was made by a newer version of sorvane; update sorvane to open it"},
      {Case::backupVaultMismatch, "this backup belongs to a different vault or is not the expected backup"},
      {Case::untrustedBackup, "this backup is not signed by your sorvane account, so it may have been altered"}};
  for (const auto& [kind, text] : cases) EXPECT_EQ(CryptoError(kind).sentence(), text);
}

}  // namespace
}  // namespace sorvane::unlock
