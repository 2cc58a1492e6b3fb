// Backup files on a disk: where they may go, what a failure leaves, what is read.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "support/corpus.h"
#include "support/doubles.h"
#include "unlock/backup_error.h"
#include "unlock/backup_file.h"

namespace sorvane::unlock {
namespace {

namespace fs = std::filesystem;

template <typename Call>
std::string refusalOf(const Call& call) {
  try {
    call();
  } catch (const base::Error& error) {
    return error.sentence();
  }
  return {};
}

/// The real file system, which fails or damages where it is told, and can do less where it is told.
class Disk final : public base::Files {
 public:
  enum class Fault { none, full, flippedOnWrite, notMoved, notSynced, lostOnceThere, stuck, touchedAfterRead };
  Fault fault = Fault::none;
  bool hasUnnamedFiles = true, swaps = true;

  std::optional<Contents> read(const fs::path& path, std::uint64_t limit) const override {
    auto contents = real_.read(path, limit);
    if (fault == Fault::touchedAfterRead) std::ofstream(path, std::ios::app) << " ";
    const bool isThere = !path.filename().string().starts_with(".");
    if ((fault == Fault::lostOnceThere || fault == Fault::stuck) && isThere) contents->bytes.back() ^= 1;
    return contents;
  }
  std::optional<base::FileIdentity> identity(const fs::path& path) const override { return real_.identity(path); }
  base::FileIdentity writeAtomically(const fs::path& path, std::span<const std::uint8_t> bytes) override {
    return real_.writeAtomically(path, damaged(bytes));
  }
  std::unique_ptr<UnnamedFile> writeUnnamed(const fs::path& folder, std::span<const std::uint8_t> bytes) override {
    return hasUnnamedFiles ? real_.writeUnnamed(folder, damaged(bytes)) : nullptr;
  }
  void append(const fs::path& path, std::span<const std::uint8_t> bytes) override { real_.append(path, bytes); }
  void remove(const fs::path& path) override {
    if (fault == Fault::stuck) throw base::FileError("could not remove", EIO);
    real_.remove(path);
    if (fault == Fault::notSynced) throw base::FileError("could not sync the folder", EIO);
  }
  void rename(const fs::path& from, const fs::path& to) override { real_.rename(from, to); }
  void moveToNew(const fs::path& from, const fs::path& to) override {
    if (fault == Fault::notMoved && from.extension() == ".tmp") throw base::FileError("could not move", EIO);
    real_.moveToNew(from, to);
  }
  bool exchange(const fs::path& first, const fs::path& second) override {
    if (fault == Fault::notMoved) throw base::FileError("could not swap", EIO);
    return swaps && real_.exchange(first, second);
  }
  void syncFolder(const fs::path& folder) override {
    if (fault == Fault::notSynced) throw base::FileError("could not sync the folder", EIO);
    real_.syncFolder(folder);
  }
  void makeFolder(const fs::path& path) override { real_.makeFolder(path); }
  std::vector<std::string> list(const fs::path& path) const override { return real_.list(path); }

 private:
  base::Bytes damaged(std::span<const std::uint8_t> bytes) const {
    if (fault == Fault::full) throw base::FileError("could not write (No space left on device)", ENOSPC);
    base::Bytes written(bytes.begin(), bytes.end());
    if (fault == Fault::flippedOnWrite) written.back() ^= 1;
    return written;
  }
  base::SystemFiles real_;
};

class BackupFiles : public ::testing::Test {
 protected:
  BackupFiles() {
    fs::create_directories(support_ / "vault" / "generations");
    fs::create_directory(folder_.path() / "out");
  }
  std::string save(const fs::path& path, ExistingFile existing = ExistingFile::refuse,
                   const std::function<void()>& check = {}) {
    return refusalOf([&] { saveBackupFile(disk_, {path, existing, support_}, base::SecretText("new"), check); });
  }
  std::vector<std::string> listed() const { return disk_.list(out_.parent_path()); }

  test::TemporaryFolder folder_;
  const fs::path support_ = folder_.path() / "support";
  const fs::path vault_ = support_ / "vault";
  const fs::path out_ = folder_.path() / "out" / "a.sorvane-backup";
  Disk disk_;
};

constexpr const char* kInside = "Choose a location outside sorvane’s working vault folder.";
constexpr const char* kNotSaved = "No backup was saved. Pick another folder and try again.";
const std::vector<std::string> kAlone{"a.sorvane-backup"};

TEST_F(BackupFiles, goNowhereInSorvanesFolderWhicheverWayLeadsThere) {
  fs::create_directory_symlink(support_, folder_.path() / "link");
  std::ofstream(support_ / "values.db") << "kept";
  fs::create_symlink(support_ / "values.db", folder_.path() / "out" / "to-file");
  fs::create_symlink(support_ / "none-yet", folder_.path() / "out" / "to-nothing");
  for (const fs::path& path :
       {support_ / "b", support_ / "values.db", vault_ / "generations" / "b", folder_.path() / "link" / "values.db",
        folder_.path() / "link" / "vault" / "b", folder_.path() / "out" / ".." / "support" / "values.db",
        folder_.path() / "out" / "to-file", folder_.path() / "out" / "to-nothing"}) {
    EXPECT_EQ(save(path, ExistingFile::replace), kInside) << path;
  }
  EXPECT_EQ(disk_.list(support_), (std::vector<std::string>{"values.db", "vault"}));
  EXPECT_EQ(test::textOfFile(support_ / "values.db"), "kept");
  EXPECT_EQ(save(folder_.path() / "support-copy"), "");
}

TEST_F(BackupFiles, goNowhereThatNobodyCanTell) {
  fs::create_symlink("round", folder_.path() / "round");
  fs::create_symlink("itself", folder_.path() / "out" / "itself");
  EXPECT_EQ(save(folder_.path() / "round" / "b"), kNotSaved);
  EXPECT_EQ(save(folder_.path() / "out" / "itself", ExistingFile::replace), kNotSaved);
  EXPECT_EQ(save(folder_.path() / "no" / "such" / "folder"), kNotSaved);
  EXPECT_EQ(save(folder_.path() / "out", ExistingFile::replace), kNotSaved);
  ASSERT_EQ(::mkfifo((folder_.path() / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(save(folder_.path() / "pipe", ExistingFile::replace), kNotSaved);
  fs::remove_all(support_);
  EXPECT_EQ(save(out_), kNotSaved);
}

TEST_F(BackupFiles, goIntoNoFolderOfSorvanesThatIsMountedElsewhere) {
  const fs::path elsewhere = folder_.path() / "out";
  if (::mount(vault_.c_str(), elsewhere.c_str(), nullptr, MS_BIND, nullptr) != 0) GTEST_SKIP() << "may not mount";
  fs::create_directory(elsewhere / "generations" / "one");
  EXPECT_EQ(save(elsewhere / "b"), kInside);
  EXPECT_EQ(save(elsewhere / "generations" / "one" / "b"), kInside);
  ::umount2(elsewhere.c_str(), MNT_DETACH);
}

TEST_F(BackupFiles, replaceNothingUnlessToldAndKeepTheOldFileThroughEveryFailure) {
  EXPECT_EQ(save(out_), "");
  struct stat status {};
  ASSERT_EQ(::stat(out_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  const std::string unverified = "The saved file did not pass verification.";
  const std::pair<Disk::Fault, std::string> faults[] = {{Disk::Fault::full, kNotSaved},
                                                        {Disk::Fault::notMoved, kNotSaved},
                                                        {Disk::Fault::notSynced, kNotSaved},
                                                        {Disk::Fault::flippedOnWrite, unverified},
                                                        {Disk::Fault::lostOnceThere, unverified}};
  const auto stopping = [] { throw BackupError(sentence::kExportCancelled); };
  for (const auto& [hasUnnamedFiles, swaps] : {std::pair(true, true), {false, true}, {true, false}, {false, false}}) {
    disk_.hasUnnamedFiles = hasUnnamedFiles;
    disk_.swaps = swaps;
    std::ofstream(out_) << "old";
    EXPECT_EQ(save(out_), std::string(sentence::kFileExists));
    for (const auto& [fault, sentence] : faults) {
      disk_.fault = fault;
      // Without a name and a swap the file is named in one step, which this disk does not stop.
      if (fault == Disk::Fault::notMoved && hasUnnamedFiles && !swaps) continue;
      EXPECT_EQ(save(out_, ExistingFile::replace), sentence);
      EXPECT_EQ(test::textOfFile(out_), "old");
      EXPECT_EQ(listed(), kAlone) << "something is left";
    }
    disk_.fault = Disk::Fault::none;
    EXPECT_EQ(save(out_, ExistingFile::replace, stopping), "Export cancelled. No backup was saved.");
    EXPECT_EQ(test::textOfFile(out_), "old");
    // Somebody else's file that comes while the work is verified.
    fs::remove(out_);
    EXPECT_EQ(save(out_, ExistingFile::refuse, [&] { std::ofstream(out_) << "old"; }),
              std::string(sentence::kFileExists));
    EXPECT_EQ(test::textOfFile(out_), "old");
    EXPECT_EQ(save(out_, ExistingFile::replace), "");
    EXPECT_EQ(test::textOfFile(out_), "new");
    EXPECT_EQ(listed(), kAlone);
  }
}

TEST_F(BackupFiles, leaveNothingOfANewFileThatFailed) {
  for (const bool hasUnnamedFiles : {true, false}) {
    disk_.hasUnnamedFiles = hasUnnamedFiles;
    for (const Disk::Fault fault : {Disk::Fault::notSynced, Disk::Fault::lostOnceThere}) {
      disk_.fault = fault;
      EXPECT_NE(save(out_), "");
      EXPECT_EQ(listed(), std::vector<std::string>{});
    }
  }
  disk_.fault = Disk::Fault::stuck;
  const std::string sentence = save(out_);
  EXPECT_NE(sentence.find("Do not rely on " + out_.string()), std::string::npos) << sentence;
  EXPECT_EQ(listed(), kAlone);
}

TEST_F(BackupFiles, leaveNothingBehindAKillWhileTheyAreWritten) {
  // What lies in the folder at the moment before the move is what a kill would leave.
  std::vector<std::string> seen;
  EXPECT_EQ(save(out_, ExistingFile::refuse, [&] { seen = listed(); }), "");
  EXPECT_EQ(seen, std::vector<std::string>{}) << "this file system has files without names";
  disk_.hasUnnamedFiles = false;
  EXPECT_EQ(save(out_, ExistingFile::replace,
                 [&] {
                   seen = listed();
                   fs::copy_file(out_.parent_path() / seen.front(), out_.parent_path() / ("." + seen.front()));
                   fs::create_hard_link(out_.parent_path() / seen.front(), folder_.path() / "left");
                 }),
            "");
  ASSERT_EQ(seen.size(), 2U);
  fs::rename(folder_.path() / "left", out_.parent_path() / seen.front());
  const std::string mine = ".sorvane-backup.mine.tmp";
  std::ofstream(out_.parent_path() / mine) << "a file of a person";
  const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  removeOldLeftovers(disk_, out_.parent_path(), now + std::chrono::minutes(50));
  EXPECT_EQ(listed().size(), 4U) << "another backup may be under way";
  removeOldLeftovers(disk_, out_.parent_path(), now + std::chrono::minutes(70));
  EXPECT_EQ(listed(), (std::vector<std::string>{mine, "a.sorvane-backup"}));
}

TEST_F(BackupFiles, areReadThroughLinksAndRefusedWhenTheyAreNone) {
  std::ofstream(out_) << "text";
  fs::create_symlink(out_, folder_.path() / "link");
  const BackupFile file = readBackupFile(disk_, folder_.path() / "link");
  EXPECT_EQ(file.text(), "text");
  EXPECT_EQ(file.digest(), crypto::sha256(base::bytesOf("text")));
  ASSERT_EQ(::mkfifo((folder_.path() / "pipe").c_str(), 0600), 0);
  fs::create_symlink(folder_.path() / "nowhere", folder_.path() / "dangling");
  const auto refusal = [&](const fs::path& path) { return refusalOf([&] { readBackupFile(disk_, path); }); };
  EXPECT_NE(refusal(folder_.path() / "pipe").find("is not a regular file"), std::string::npos);
  EXPECT_EQ(refusal(folder_.path() / "dangling"), std::string(sentence::kFileMissing));
  EXPECT_EQ(refusal(folder_.path() / "missing"), std::string(sentence::kFileMissing));
  fs::resize_file(out_, 268'435'457);
  EXPECT_EQ(refusal(out_), "Backup files larger than 256 MB are not supported.");
  fs::resize_file(out_, 4);
  disk_.fault = Disk::Fault::touchedAfterRead;
  EXPECT_EQ(refusal(out_), std::string(sentence::kFileChanged));
}

}  // namespace
}  // namespace sorvane::unlock
