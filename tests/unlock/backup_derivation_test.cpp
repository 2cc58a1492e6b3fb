// When keys are derived on the way into a backup file: never before everything that can be checked without one was
// checked. The libraries' derivations are counted: this program's own functions of their names stand before them and
// pass the calls on.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <sodium.h>

#include <atomic>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

#include "base/codec.h"
#include "support/corpus.h"
#include "unlock/backup.h"

namespace {

std::atomic<int> derivations{0};
thread_local int depth = 0;

/// Calls the library's own function of the name. One derivation that calls another counts once.
template <typename Function, typename... Arguments>
int counted(const char* name, Arguments... arguments) {
  auto* const behind = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
  if (depth++ == 0) ++derivations;
  const int result = behind(arguments...);
  --depth;
  return result;
}

}  // namespace

extern "C" {
int crypto_pwhash(unsigned char* out, unsigned long long size, const char* password, unsigned long long length,
                  const unsigned char* salt, unsigned long long iterations, std::size_t memory, int algorithm) {
  return counted<decltype(crypto_pwhash)>("crypto_pwhash", out, size, password, length, salt, iterations, memory,
                                          algorithm);
}
int PKCS5_PBKDF2_HMAC(const char* password, int length, const unsigned char* salt, int saltLength, int rounds,
                      const EVP_MD* digest, int size, unsigned char* out) {
  return counted<decltype(PKCS5_PBKDF2_HMAC)>("PKCS5_PBKDF2_HMAC", password, length, salt, saltLength, rounds, digest,
                                              size, out);
}
int EVP_KDF_derive(EVP_KDF_CTX* context, unsigned char* key, std::size_t size, const OSSL_PARAM parameters[]) {
  return counted<decltype(EVP_KDF_derive)>("EVP_KDF_derive", context, key, size, parameters);
}
}

namespace sorvane::unlock {
namespace {

using Json = nlohmann::json;

BackupSecret entered(const Json& words) {
  BackupSecret secret;
  if (words.contains("passphrase")) secret.passphrase.emplace(words["passphrase"].get<std::string>());
  if (words.contains("recoveryKey")) secret.recoveryKey.emplace(words["recoveryKey"].get<std::string>());
  return secret;
}

/// How many keys are derived while a file is opened, however that ends.
int derivedFor(std::string_view file, const BackupSecret& secret) {
  derivations = 0;
  try {
    openBackup(parseBackup(file), secret);
  } catch (const base::Error&) {
  }
  return derivations;
}

/// Whether the sentence says something that only a derived key can have told.
bool isAboutContents(const std::string& sentence) {
  return sentence == CryptoError(CryptoError::Case::wrongSecret).sentence() ||
         sentence == CryptoError(CryptoError::Case::newerBackupVersion).sentence() ||
         sentence.find("variable name") != std::string::npos;
}

TEST(BackupDerivation, runsOnceForEachFileThatOpens) {
  const std::map<std::string, int> perFile{{"v2-passphrase", 1}, {"v2-recovery", 1}, {"v1-both", 1}, {"v2-none", 0}};
  for (const Json& row : Json::parse(test::textOfFile(test::corpus("backup/golden.json")))) {
    const auto file = perFile.find(row["name"].get<std::string>());
    if (file == perFile.end()) continue;
    const std::string text = test::textOfFile(test::corpus("backup/" + file->first + ".sorvane-backup"));
    for (const Json& words : row["entered"]) EXPECT_EQ(derivedFor(text, entered(words)), file->second) << file->first;
  }
}

TEST(BackupDerivation, waitsForEveryCheckThatNeedsNoKey) {
  int without = 0, with = 0;
  std::ifstream kit(test::corpus("backup/faults.jsonl"));
  for (std::string line; std::getline(kit, line);) {
    const Json fault = Json::parse(line);
    const std::string name = fault["name"], expected = fault["expected"];
    const base::Bytes file = *base::parseBase64(fault["file"].get<std::string>());
    const int derived = derivedFor(base::textOf(file), entered(fault["entered"]));
    EXPECT_LE(derived, 1) << name;
    ++(derived == 0 ? without : with);
    for (const char* const start :
         {"memory ", "iterations ", "product ", "v1 iterations ", "salt ", "v1 salt ", "version ", "format ", "kdf ",
          "protection ", "v1 protection ", "none ", "plain", "no backup", "cloud"}) {
      if (name.starts_with(start)) {
        EXPECT_EQ(derived, 0) << name;
      }
    }
    const bool malformed = expected == CryptoError(CryptoError::Case::malformedBackup).sentence();
    if (!malformed && !isAboutContents(expected)) {
      EXPECT_EQ(derived, 0) << name;
    }
  }
  // Those with a derivation are a wrong secret or damaged inside a box. A check that moves behind one changes the
  // numbers.
  EXPECT_EQ(without, 317);
  EXPECT_EQ(with, 184);
}

}  // namespace
}  // namespace sorvane::unlock
