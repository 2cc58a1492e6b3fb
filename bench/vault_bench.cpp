// What the operations of a vault cost at 100, 1,000 and 10,000 secrets, beside the floors they are measured against.
// Every operation and its floor are taken in turn in one run, so that what the machine does meanwhile meets both.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/doubles.h"
#include "vault/accounts.h"
#include "vault/record_codec.h"
#include "vault/sealed_files.h"
#include "vault/vault.h"

namespace sorvane {
namespace {

using vault::Project;
using vault::Secret;
using vault::Vault;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr int kVersions = 3;
constexpr int kBindings = 20;

/// Median times of steps that are taken in turn.
class Interleaved {
 public:
  void add(std::string name, std::function<void()> step) { steps_.push_back({std::move(name), std::move(step), {}}); }
  void run(int rounds) {
    for (int round = 0; round < rounds; ++round) {
      for (Step& step : steps_) {
        const auto start = std::chrono::steady_clock::now();
        step.call();
        step.times.push_back(Milliseconds(std::chrono::steady_clock::now() - start).count());
      }
    }
  }
  double median(const std::string& name) const {
    for (const Step& step : steps_) {
      if (step.name != name) continue;
      std::vector<double> times = step.times;
      std::nth_element(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2), times.end());
      return times[times.size() / 2];
    }
    return 0;
  }

 private:
  struct Step {
    std::string name;
    std::function<void()> call;
    std::vector<double> times;
  };
  std::vector<Step> steps_;
};

std::vector<Secret> makeSecrets(int count, base::Date now) {
  std::vector<Secret> secrets;
  for (int i = 0; i < count; ++i) {
    Secret secret;
    secret.id = vault::newSecretId();
    secret.name = "SERVICE_TOKEN_" + std::to_string(i);
    secret.description = "Token of service " + std::to_string(i) + " for the staging and the production system";
    secret.tags = {"service", "team-" + std::to_string(i % 17)};
    secret.createdAt = secret.updatedAt = now;
    secret.currentVersion = kVersions;
    for (int number = 1; number <= kVersions; ++number) {
      vault::SecretVersion version;
      version.version = number;
      version.createdAt = now;
      version.expiresAt = now + std::chrono::hours(24 * 90);
      if (number < kVersions) {
        version.status = vault::VersionStatus::retired;
        version.retiredAt = now;
      }
      secret.versions.push_back(version);
    }
    secrets.push_back(std::move(secret));
  }
  return secrets;
}

std::vector<Project> makeProjects(int count, const std::vector<Secret>& secrets, base::Date now) {
  std::vector<Project> projects;
  for (int i = 0; i < count; ++i) {
    Project project;
    project.id = vault::newProjectId();
    project.name = "environment " + std::to_string(i);
    project.rootPath = "/srv/projects/environment-" + std::to_string(i);
    project.createdAt = project.updatedAt = now;
    for (int b = 0; b < kBindings; ++b) {
      const Secret& secret = secrets[static_cast<std::size_t>(i * kBindings + b) % secrets.size()];
      project.bindings.push_back({"VARIABLE_" + std::to_string(b), secret.id, {}, {}});
    }
    projects.push_back(std::move(project));
  }
  return projects;
}

/// A vault of one size on disk, with the store in memory: what is measured is the vault, not the store.
class Sized {
 public:
  Sized(int secretCount, int projectCount) : secrets_(makeSecrets(secretCount, clock_.now())) {
    { const Vault created(directory(), ports()); }
    const auto key = vault::readVaultKey(store_);
    generation_ = files_.list(directory() / "generations").front();
    const auto projects = makeProjects(projectCount, secrets_, clock_.now());
    plainSecrets_ = std::string(vault::encodeSecrets(secrets_).view());
    plainProjects_ = std::string(vault::encodeProjects(projects).view());
    put(*key, vault::kSecretsFile, plainSecrets_);
    put(*key, vault::kProjectsFile, plainProjects_);
    for (const Secret& secret : secrets_) {
      for (const auto& version : secret.versions) {
        store_.store(vault::accountOf(secret.id, version.version),
                     base::SecretText("made-up value of a service token"));
      }
    }
    environment_ = projects[projects.size() / 2].id;
    vault_ = std::make_unique<Vault>(directory(), ports());
    if (vault_->storageFailure()) std::fprintf(stderr, "%s\n", vault_->storageFailure()->c_str());
  }

  std::filesystem::path directory() const { return folder_.path() / "vault"; }
  Vault::Ports ports() { return {files_, store_, clock_, revoker_}; }
  Vault& vault() { return *vault_; }
  const std::string& secretId() const { return secrets_[secrets_.size() / 2].id; }
  const std::string& environmentId() const { return environment_; }
  void open() { const Vault opened(directory(), ports()); }
  std::size_t plainBytes() const { return plainSecrets_.size() + plainProjects_.size(); }

  void parsePlainly() {
    for (const std::string* const text : {&plainSecrets_, &plainProjects_}) {
      if (nlohmann::json::parse(*text).empty()) std::abort();
    }
  }
  /// The floor of a durable change: as many bytes as the file has, written, synced and renamed.
  void writeFloor(std::string_view name) {
    const auto path = directory() / "generations" / generation_ / name;
    if (floor_[std::string(name)].empty()) floor_[std::string(name)] = files_.read(path)->bytes;
    files_.writeAtomically(folder_.path() / "floor", floor_[std::string(name)]);
  }

 private:
  void put(const crypto::SymmetricKey& key, std::string_view name, std::string_view text) {
    files_.writeAtomically(directory() / "generations" / generation_ / name,
                           vault::sealFile(key, {generation_, name}, text));
  }

  test::TemporaryFolder folder_;
  base::SystemFiles files_;
  test::MemorySecretStore store_;
  test::ManualClock clock_;
  test::RecordingRevoker revoker_;
  std::string generation_, environment_, plainSecrets_, plainProjects_;
  std::vector<Secret> secrets_;
  std::map<std::string, base::Bytes> floor_;
  std::unique_ptr<Vault> vault_;
};

void measure(int secrets, int projects, int rounds) {
  Sized sized(secrets, projects);
  const vault::AccessContext context{"bench", "bench", "bench", {}};
  Interleaved steps;
  int turn = 0;
  steps.add("open", [&] { sized.open(); });
  steps.add("parse", [&] { sized.parsePlainly(); });
  steps.add("list", [&] {
    if (sized.vault().records()->secrets.empty()) std::abort();
  });
  steps.add("render", [&] {
    if (sized.vault().render(sized.environmentId(), {}, vault::RenderValues::deliver, context).variables.size() !=
        kBindings)
      std::abort();
  });
  steps.add("render redacted",
            [&] { sized.vault().render(sized.environmentId(), {}, vault::RenderValues::redact, context); });
  steps.add("edit", [&] {
    sized.vault().editSecret(sized.secretId(),
                             {.description = std::to_string(++turn), .tags = {}, .icon = {}, .isFavorite = {}});
  });
  steps.add("secrets floor", [&] { sized.writeFloor(vault::kSecretsFile); });
  steps.add("bind", [&] {
    sized.vault().bind(sized.environmentId(), {"VARIABLE_0", sized.secretId(), {}, ++turn % 2 == 0});
  });
  steps.add("projects floor", [&] { sized.writeFloor(vault::kProjectsFile); });
  steps.add("add version", [&] {
    vault::NewVersion version;
    version.value = base::SecretText("another made-up value");
    sized.vault().addVersion(sized.secretId(), std::move(version));
  });
  steps.add("restore version", [&] { sized.vault().restoreVersion(sized.secretId(), 1); });
  steps.run(rounds);
  const double secretsFloor = steps.median("secrets floor"), projectsFloor = steps.median("projects floor");
  const auto row = [&](const char* name, const char* step, double floor) {
    std::printf("%7d %8.2f  %-18s %9.3f %9.3f %7.2f\n", secrets, static_cast<double>(sized.plainBytes()) / 1e6, name,
                steps.median(step), floor, floor > 0 ? steps.median(step) / floor : 0);
  };
  row("open / parse", "open", steps.median("parse"));
  row("list", "list", 0);
  row("render, logged", "render", 0);
  row("render, redacted", "render redacted", 0);
  row("edit / floor", "edit", secretsFloor);
  row("bind / floor", "bind", projectsFloor);
  row("add / floor", "add version", secretsFloor);
  row("restore / floor", "restore version", secretsFloor);
}

}  // namespace
}  // namespace sorvane

int main() {
  std::printf("%7s %8s  %-18s %9s %9s %7s\n", "secrets", "MB", "operation", "ms", "floor ms", "ratio");
  sorvane::measure(100, 5, 200);
  sorvane::measure(1000, 50, 60);
  sorvane::measure(10000, 500, 30);
}
