#include "approver/key_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "support/doubles.h"
#include "support/faults.h"

namespace sorvane::test {
namespace {

using approver::KeyFile;
using approver::KeyFileError;
using approver::OpenPairing;

constexpr std::string_view kPassphrase = "made-up passphrase";

class ApproverKeyFile : public testing::Test {
 protected:
  OpenPairing newPairing() const {
    approver::PublicKey computer{9, 8, 7};
    return {{"studio",
             "tablet",
             approver::computerIdOf(computer),
             {{"192.0.2.7", 41873}, {"fe80::1%eth0", 7}},
             clock.now()},
            computer,
            {crypto::AgreementKey::random(), crypto::PresenceKey::random()},
            approver::newSealingKey(kPassphrase, {crypto::kMinPassphraseMemoryKiB, 1})};
  }
  std::string text() const {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  void write(const std::string& text) const { std::ofstream(path, std::ios::binary | std::ios::trunc) << text; }
  std::optional<KeyFileError::Case> failure(std::string_view passphrase) const {
    try {
      file.open(passphrase);
      return std::nullopt;
    } catch (const KeyFileError& error) {
      return error.kind();
    }
  }

  TemporaryFolder folder;
  const std::filesystem::path path = folder.path() / "approver" / "keys";
  ManualClock clock;
  base::SystemFiles files;
  KeyFile file{files, path};
};

TEST_F(ApproverKeyFile, givesTheKeysToThePassphraseAndTheFactsToAnyone) {
  EXPECT_FALSE(file.facts());
  EXPECT_FALSE(file.open(kPassphrase));
  const OpenPairing pairing = newPairing();
  file.save(pairing);
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  ASSERT_EQ(::stat(path.parent_path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0700U);

  const auto facts = file.facts();
  ASSERT_TRUE(facts);
  EXPECT_EQ(facts->macName, "studio");
  EXPECT_EQ(facts->places, pairing.facts.places);
  EXPECT_EQ(facts->pairedAt, pairing.facts.pairedAt);
  const auto opened = file.open(kPassphrase);
  ASSERT_TRUE(opened);
  EXPECT_EQ(opened->computer, pairing.computer);
  EXPECT_EQ(opened->keys.agreement.publicKey(), pairing.keys.agreement.publicKey());
  EXPECT_EQ(opened->keys.presence.publicKey(), pairing.keys.presence.publicKey());
  EXPECT_EQ(failure("made-up passphrasE"), KeyFileError::Case::wrongPassphrase);

  // What a link learns is written without the passphrase being asked for again.
  OpenPairing moved = std::move(*file.open(kPassphrase));
  moved.facts.places = {{"192.0.2.8", 1}};
  file.save(moved);
  EXPECT_EQ(file.open(kPassphrase)->facts.places, moved.facts.places);
  file.remove();
  EXPECT_FALSE(file.facts());
}

TEST_F(ApproverKeyFile, opensNoFileThatWasAlteredOrCut) {
  file.save(newPairing());
  const std::string good = text();
  for (std::size_t at = 0; at < good.size(); ++at) {
    std::string bad = good;
    bad[at] = static_cast<char>(bad[at] ^ 1);
    write(bad);
    EXPECT_TRUE(failure(kPassphrase)) << at;
    write(good.substr(0, at));
    EXPECT_EQ(failure(kPassphrase), KeyFileError::Case::unreadable) << at;
  }
  // A cost that would take the memory of the device is refused before it is computed.
  std::string costly = good;
  costly.replace(costly.find("\"memoryKiB\":8"), 13, "\"memoryKiB\":1048577");
  write(costly);
  EXPECT_EQ(failure(kPassphrase), KeyFileError::Case::unreadable);
  write(good + "\n");
  EXPECT_EQ(failure(kPassphrase), KeyFileError::Case::unreadable);
  write(std::string(KeyFile::kMostBytes + 1, 'x'));
  EXPECT_EQ(failure(kPassphrase), KeyFileError::Case::unreadable);
  write(good);
  EXPECT_FALSE(failure(kPassphrase));
}

TEST_F(ApproverKeyFile, isNotUsedWhileOthersCanReadItOrWhenItIsALink) {
  file.save(newPairing());
  ::chmod(path.c_str(), 0640);
  EXPECT_EQ(failure(kPassphrase), KeyFileError::Case::notProtected);
  ::chmod(path.c_str(), 0600);
  EXPECT_FALSE(failure(kPassphrase));
  // Nothing but a file is read, and nothing of it is waited for.
  std::filesystem::rename(path, folder.path() / "elsewhere");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(failure(kPassphrase), KeyFileError::Case::unreadable);
  std::filesystem::remove(path);
  std::filesystem::create_symlink(folder.path() / "elsewhere", path);
  EXPECT_EQ(failure(kPassphrase), KeyFileError::Case::unreadable);
}

TEST_F(ApproverKeyFile, judgesTheVeryFileThatItReads) {
  // Two files take the name in turn: one that others can read, and whose keys open, and one that is damaged. The first
  // must be found open to others or not at all, whichever stands there a moment later.
  file.save(newPairing());
  const auto open = folder.path() / "open", damaged = folder.path() / "damaged";
  std::filesystem::rename(path, open);
  ::chmod(open.c_str(), 0644);
  write("damaged");
  ::chmod(path.c_str(), 0600);
  std::filesystem::rename(path, damaged);
  std::atomic<bool> isOver = false;
  std::thread swapping([&] {
    const auto next = folder.path() / "next";
    while (!isOver) {
      for (const auto& each : {open, damaged}) {
        std::filesystem::remove(next);
        std::filesystem::create_hard_link(each, next);
        std::filesystem::rename(next, path);
        std::filesystem::remove(next);
      }
    }
  });
  int seen = 0;
  for (int i = 0; i < 20'000; ++i) {
    try {
      EXPECT_FALSE(file.facts()) << "a file that others can read was used";
    } catch (const KeyFileError& error) {
      if (error.kind() == KeyFileError::Case::notProtected) ++seen;
    }
  }
  isOver = true;
  swapping.join();
  EXPECT_GT(seen, 0);
}

TEST_F(ApproverKeyFile, keepsTheOldKeysWhenTheNewOnesCannotBeWritten) {
  const OpenPairing pairing = newPairing();
  file.save(pairing);
  for (int step = 0; step < 2; ++step) {
    Fault fault{.failAt = step};
    FaultyFiles faulty(fault);
    KeyFile broken(faulty, path);
    OpenPairing changed = newPairing();
    EXPECT_THROW(broken.save(changed), KeyFileError);
    EXPECT_EQ(file.open(kPassphrase)->keys.agreement.publicKey(), pairing.keys.agreement.publicKey());
  }
}

}  // namespace
}  // namespace sorvane::test
