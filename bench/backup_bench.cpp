// What a backup of 40,000 versions of 4,000 bytes costs: export and open beside the floor (AES-256-GCM, base64 and one
// write of the same bytes) and beside age with a passphrase, Argon2id beside libsodium's own call, and the memory that
// each takes at its peak. Everything that is compared is taken in turn in one run, in wall time and in processor time.
#include <openssl/evp.h>
#include <pty.h>
#include <sodium.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/codec.h"
#include "base/files.h"
#include "crypto/passphrase_key.h"
#include "support/doubles.h"
#include "unlock/backup.h"
#include "unlock/backup_changes.h"
#include "unlock/backup_file.h"
#include "vault/accounts.h"
#include "vault/record_codec.h"
#include "vault/sealed_files.h"
#include "vault/vault.h"

namespace sorvane {
namespace {

using unlock::BackupChoice;
using unlock::BackupPayload;
using unlock::BackupProtection;

constexpr int kSecrets = 10'000, kVersions = 4, kProjects = 500, kBindings = 20, kEvents = 10'000;
constexpr std::size_t kValueBytes = 4'000;
constexpr std::string_view kPassphrase = "made-up words of a person";
constexpr int kRounds = 7;

void require(bool holds) {
  if (!holds) {
    std::fprintf(stderr, "A step of the benchmark failed.\n");
    std::exit(1);
  }
}

/// Wall time and processor time (user and system, of this process and of those it waited for), in milliseconds.
struct Spent {
  double wall = 0, processor = 0;
  static Spent now() {
    const auto milliseconds = [](const timeval& time) {
      return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
    };
    Spent spent;
    spent.wall = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
    for (const auto who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
      rusage usage{};
      getrusage(who, &usage);
      spent.processor += milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime);
    }
    return spent;
  }
};

/// Steps that are taken in turn, with the medians of what they cost. A step prepares what is not measured and returns
/// the work that is.
class Interleaved {
 public:
  using Work = std::function<void()>;
  void add(std::string name, std::function<Work()> prepare) {
    steps_.push_back({std::move(name), std::move(prepare), {}});
  }
  void run(int rounds) {
    for (int round = 0; round < rounds; ++round) {
      for (Step& step : steps_) {
        const Work work = step.prepare();
        const Spent before = Spent::now();
        work();
        const Spent after = Spent::now();
        step.costs.push_back({after.wall - before.wall, after.processor - before.processor});
      }
    }
  }
  Spent median(const std::string& name) const {
    const auto step = std::find_if(steps_.begin(), steps_.end(), [&](const Step& s) { return s.name == name; });
    require(step != steps_.end());
    return {middle(step->costs, &Spent::wall), middle(step->costs, &Spent::processor)};
  }
  /// A row for each step, as a multiple of `floor`.
  void print(const std::string& floor) const {
    const Spent base = median(floor);
    std::printf("%-44s %9s %6s %12s %6s\n", "step", "wall ms", "ratio", "processor ms", "ratio");
    for (const Step& step : steps_) {
      const Spent cost = median(step.name);
      std::printf("%-44s %9.1f %6.2f %12.1f %6.2f\n", step.name.c_str(), cost.wall, cost.wall / base.wall,
                  cost.processor, cost.processor / base.processor);
    }
  }

 private:
  struct Step {
    std::string name;
    std::function<Work()> prepare;
    std::vector<Spent> costs;
  };
  static double middle(const std::vector<Spent>& costs, double Spent::*what) {
    std::vector<double> numbers;
    for (const Spent& cost : costs) numbers.push_back(cost.*what);
    std::nth_element(numbers.begin(), numbers.begin() + static_cast<std::ptrdiff_t>(numbers.size() / 2), numbers.end());
    return numbers[numbers.size() / 2];
  }
  std::vector<Step> steps_;
};

/// A made-up value with line feeds and slashes, as keys in armour have them, different for each number.
base::SecretText madeUpValue(std::uint64_t number) {
  static constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  base::SecretText value;
  value.resize(kValueBytes);
  std::uint64_t state = number * 0x9E3779B97F4A7C15ULL + 1;
  for (std::size_t i = 0; i < kValueBytes; ++i) {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    value.data()[i] = i % 65 == 64 ? '\n' : kLetters[state >> 58];
  }
  return value;
}

std::string numbered(const char* prefix, int number, int digits) {
  const std::string text = std::to_string(number);
  return prefix + std::string(static_cast<std::size_t>(digits) - text.size(), '0') + text;
}

vault::Secret madeUpSecret(int number, base::Date now) {
  vault::Secret secret;
  secret.id = numbered("sec_", number, 32);
  secret.name = numbered("SERVICE_KEY_", number, 5);
  secret.description = "Key of a service for the staging and the production system";
  secret.tags = {"service"};
  secret.createdAt = secret.updatedAt = now;
  secret.currentVersion = kVersions;
  for (int version = 1; version <= kVersions; ++version) {
    vault::SecretVersion made;
    made.version = version;
    made.createdAt = now;
    if (version < kVersions) {
      made.status = vault::VersionStatus::retired;
      made.retiredAt = now;
    }
    secret.versions.push_back(made);
  }
  return secret;
}

BackupPayload madeUpPayload() {
  const base::Date now = std::chrono::sys_days{std::chrono::year{2026} / 11 / 21};
  BackupPayload payload;
  payload.exportedAt = now;
  for (int i = 0; i < kSecrets; ++i) {
    payload.secrets.push_back(madeUpSecret(i, now));
    for (int version = 1; version <= kVersions; ++version) {
      payload.values.push_back(
          {payload.secrets.back().id, version,
           madeUpValue(static_cast<std::uint64_t>(i) * kVersions + static_cast<std::uint64_t>(version))});
    }
  }
  for (int i = 0; i < kProjects; ++i) {
    vault::Project project;
    project.id = numbered("proj_", i, 32);
    project.name = numbered("environment ", i, 3);
    project.rootPath = "/srv/projects/" + project.name;
    project.createdAt = project.updatedAt = now;
    for (int b = 0; b < kBindings; ++b) {
      const auto& secret = payload.secrets[static_cast<std::size_t>(i * kBindings + b)];
      project.bindings.push_back({numbered("VARIABLE_", b, 2), secret.id, {}, {}});
    }
    payload.projects.push_back(std::move(project));
  }
  for (int i = 0; i < kEvents; ++i) {
    vault::AccessEvent event;
    event.id = numbered("00000000-0000-4000-8000-", i, 12);
    event.at = now;
    event.actor = event.source = "agent";
    event.tool = "render_environment";
    event.secretId = payload.secrets[static_cast<std::size_t>(i)].id;
    payload.audit.push_back(event);
  }
  return payload;
}

BackupChoice choiceOf(BackupProtection protection) {
  BackupChoice choice;
  choice.protection = protection;
  if (protection == BackupProtection::passphrase) {
    choice.passphrase = base::SecretText(kPassphrase);
    choice.withRecoveryKey = true;
  }
  return choice;
}

unlock::BackupSecret secretFor(BackupProtection protection) {
  unlock::BackupSecret secret;
  if (protection == BackupProtection::passphrase) secret.passphrase.emplace(kPassphrase);
  return secret;
}

/// From the payload in memory to the verified file on the disk.
void exportTo(const std::filesystem::path& file, BackupPayload payload, BackupProtection protection) {
  base::SystemFiles files;
  const auto made = unlock::exportBackup(std::move(payload), choiceOf(protection));
  unlock::saveBackupFile(files, {file, unlock::ExistingFile::replace, "/nonexistent"}, made.data, {});
}

/// From the file on the disk to the payload in memory.
void openFrom(const std::filesystem::path& path, BackupProtection protection) {
  const base::SystemFiles files;
  const unlock::BackupFile file = unlock::readBackupFile(files, path);
  const auto parsed = unlock::parseBackup(file.text());
  require(unlock::openBackup(parsed, secretFor(protection)).payload.values.size() == kSecrets * kVersions);
}

/// The floor: `text` sealed and written in base64, by the libraries' own calls, with nothing looked at and nothing
/// synced.
void floorTo(const std::filesystem::path& file, std::string_view text) {
  const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                &EVP_CIPHER_CTX_free);
  const auto bytes = base::bytesOf(text);
  const unsigned char key[32] = {1}, nonce[12] = {2};
  std::vector<unsigned char> sealed(text.size() + 16);
  int size = 0;
  require(EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, key, nonce) == 1 &&
          EVP_EncryptUpdate(context.get(), sealed.data(), &size, bytes.data(), static_cast<int>(bytes.size())) == 1 &&
          EVP_EncryptFinal_ex(context.get(), sealed.data() + size, &size) == 1 &&
          EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, 16, sealed.data() + text.size()) == 1);
  std::vector<char> encoded(base::base64Size(sealed.size()));
  base::base64Into(sealed, encoded.data());
  const std::unique_ptr<std::FILE, decltype(&std::fclose)> out(std::fopen(file.c_str(), "wb"), &std::fclose);
  require(out && std::fwrite(encoded.data(), 1, encoded.size(), out.get()) == encoded.size());
}

/// Reads from a terminal until it has said `text`.
void awaitOn(int terminal, std::string_view text) {
  std::string said;
  char buffer[512];
  while (said.find(text) == std::string::npos) {
    const ssize_t got = ::read(terminal, buffer, sizeof buffer);
    require(got > 0);
    said.append(buffer, static_cast<std::size_t>(got));
  }
}

/// Runs age on a terminal of its own and types the passphrase at each of its prompts.
void age(std::vector<std::string> arguments, const std::vector<std::string_view>& prompts) {
  arguments.insert(arguments.begin(), "age");
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  int terminal = -1;
  const pid_t child = ::forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == 0) {
    ::execvp("age", argv.data());
    ::_exit(127);
  }
  require(child > 0);
  const std::string line = std::string(kPassphrase) + "\n";
  for (const std::string_view prompt : prompts) {
    awaitOn(terminal, prompt);
    require(::write(terminal, line.data(), line.size()) == static_cast<ssize_t>(line.size()));
  }
  char rest[512];
  while (::read(terminal, rest, sizeof rest) > 0) {
  }
  int status = 0;
  require(::waitpid(child, &status, 0) == child && status == 0);
  ::close(terminal);
}

/// A vault that holds the payload, with its store in memory: gathering is measured, the store is not.
class Furnished {
 public:
  explicit Furnished(const BackupPayload& payload) {
    { const vault::Vault created(directory(), ports()); }
    const auto key = vault::readVaultKey(store_);
    const std::string generation = files_.list(directory() / "generations").front();
    const auto put = [&](std::string_view name, const base::SecretText& text) {
      files_.writeAtomically(directory() / "generations" / generation / name,
                             vault::sealFile(*key, {generation, name}, text.view()));
    };
    put(vault::kSecretsFile, vault::encodeSecrets(payload.secrets));
    put(vault::kProjectsFile, vault::encodeProjects(payload.projects));
    for (const auto& entry : payload.values) store_.store(vault::accountOf(entry.secretId, entry.version), entry.value);
    vault_ = std::make_unique<vault::Vault>(directory(), ports());
    require(!vault_->storageFailure());
  }
  BackupPayload gather() {
    return unlock::gatherBackup(*vault_, {"bench", "bench", "bench", {}}, clock_.now(), [](auto, auto) {});
  }

 private:
  std::filesystem::path directory() const { return folder_.path() / "vault"; }
  vault::Vault::Ports ports() { return {files_, store_, clock_, revoker_}; }
  test::TemporaryFolder folder_;
  base::SystemFiles files_;
  test::MemorySecretStore store_;
  test::ManualClock clock_;
  test::RecordingRevoker revoker_;
  std::unique_ptr<vault::Vault> vault_;
};

void measureTimes() {
  const test::TemporaryFolder folder;
  const auto in = [&](const char* name) { return folder.path() / name; };
  const base::SecretText text = unlock::encodePayload(madeUpPayload());
  std::ofstream(in("text"), std::ios::binary) << text.view();
  Interleaved steps;
  steps.add("floor: AES-256-GCM, base64, one write", [&] { return [&] { floorTo(in("floor"), text.view()); }; });
  for (const auto protection : {BackupProtection::passphrase, BackupProtection::none}) {
    const std::string with = protection == BackupProtection::none ? ", no encryption" : ", passphrase and recovery key";
    const auto file = in(with.c_str() + 2);
    steps.add("export" + with, [=] {
      auto payload = std::make_shared<BackupPayload>(madeUpPayload());
      return [=] { exportTo(file, std::move(*payload), protection); };
    });
    steps.add("open" + with, [=] { return [=] { openFrom(file, protection); }; });
  }
  const auto furnished = std::make_shared<Furnished>(madeUpPayload());
  steps.add("gather from a vault, store in memory",
            [=] { return [=] { require(!furnished->gather().values.empty()); }; });
  steps.add("age -p", [&] {
    std::filesystem::remove(in("text.age"));
    return [&] { age({"-p", "-o", in("text.age"), in("text")}, {"Enter passphrase", "Confirm passphrase"}); };
  });
  steps.add("age -d", [&] {
    std::filesystem::remove(in("text.again"));
    return [&] { age({"-d", "-o", in("text.again"), in("text.age")}, {"Enter passphrase"}); };
  });
  steps.run(kRounds);
  require(std::filesystem::file_size(in("text.again")) == text.size());
  std::printf("payload of %d versions of %zu bytes, %.1f MB of JSON; medians of %d rounds\n", kSecrets * kVersions,
              kValueBytes, static_cast<double>(text.size()) / 1e6, kRounds);
  steps.print("floor: AES-256-GCM, base64, one write");
}

void measureDerivation() {
  const base::Bytes salt(crypto::kPassphraseSaltBytes, 7);
  const crypto::PassphraseCost cost;
  Interleaved steps;
  steps.add("crypto_pwhash of libsodium", [&] {
    return [&] {
      unsigned char key[32];
      require(crypto_pwhash(key, sizeof key, kPassphrase.data(), kPassphrase.size(), salt.data(), cost.iterations,
                            std::size_t{cost.memoryKiB} * 1024, crypto_pwhash_ALG_ARGON2ID13) == 0);
    };
  });
  steps.add("the key of a passphrase", [&] { return [&] { crypto::passphraseKey(kPassphrase, salt, cost); }; });
  steps.run(41);
  std::printf("\nArgon2id, 64 MiB and 3 passes; medians of 41 rounds\n");
  steps.print("crypto_pwhash of libsodium");
}

/// In a process of its own: one export or one open, and what it took at its peak.
int peakOf(const std::string& what, const std::string& protectionWord, const std::filesystem::path& file) {
  const BackupProtection protection = unlock::backupProtectionOf(protectionWord);
  if (what == "export") exportTo(file, madeUpPayload(), protection);
  if (what == "open") openFrom(file, protection);
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) std::printf("%ld\n", std::stol(line.substr(6)));
  }
  return 0;
}

void measurePeaks(const char* program) {
  const test::TemporaryFolder folder;
  std::printf("\n%-44s %9s %9s %6s\n", "peak of a process of its own", "file MB", "peak MB", "ratio");
  for (const char* const protection : {"passphrase", "none"}) {
    for (const char* const what : {"export", "open"}) {
      const auto file = folder.path() / protection;
      const std::string command = std::string(program) + " " + what + " " + protection + " " + file.string();
      const std::unique_ptr<std::FILE, decltype(&::pclose)> child(::popen(command.c_str(), "r"), &::pclose);
      long kilobytes = 0;
      require(child && std::fscanf(child.get(), "%ld", &kilobytes) == 1);
      const double size = static_cast<double>(std::filesystem::file_size(file)) / 1e6;
      const double peak = static_cast<double>(kilobytes) * 1024 / 1e6;
      std::printf("%-44s %9.1f %9.1f %6.2f\n", (std::string(what) + ", " + protection).c_str(), size, peak,
                  peak / size);
    }
  }
}

}  // namespace
}  // namespace sorvane

int main(int count, char** words) {
  if (sodium_init() < 0) return 1;
  if (count == 4) return sorvane::peakOf(words[1], words[2], words[3]);
  sorvane::measureTimes();
  sorvane::measureDerivation();
  sorvane::measurePeaks(words[0]);
  return 0;
}
