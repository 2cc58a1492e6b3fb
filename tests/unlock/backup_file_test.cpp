// Backup files on a disk: where they may go, what a failure leaves, what is read.
#include <gtest/gtest.h>
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

/// The real file system, which fails or damages where it is told.
class Disk final : public base::Files {
 public:
  enum class Fault { none, full, flippedOnWrite, notMoved, touchedAfterRead };
  Fault fault = Fault::none;

  std::optional<Contents> read(const fs::path& path, std::uint64_t limit) const override {
    auto contents = real_.read(path, limit);
    if (fault == Fault::touchedAfterRead) std::ofstream(path, std::ios::app) << " ";
    return contents;
  }
  std::optional<base::FileIdentity> identity(const fs::path& path) const override { return real_.identity(path); }
  base::FileIdentity writeAtomically(const fs::path& path, std::span<const std::uint8_t> bytes) override {
    if (fault == Fault::full) throw base::FileError("could not write (No space left on device)", ENOSPC);
    base::Bytes written(bytes.begin(), bytes.end());
    if (fault == Fault::flippedOnWrite) written.back() ^= 1;
    return real_.writeAtomically(path, written);
  }
  void append(const fs::path& path, std::span<const std::uint8_t> bytes) override { real_.append(path, bytes); }
  void remove(const fs::path& path) override { real_.remove(path); }
  void rename(const fs::path& from, const fs::path& to) override {
    if (fault == Fault::notMoved) throw base::FileError("could not replace", EIO);
    real_.rename(from, to);
  }
  void makeFolder(const fs::path& path) override { real_.makeFolder(path); }
  std::vector<std::string> list(const fs::path& path) const override { return real_.list(path); }

 private:
  base::SystemFiles real_;
};

class BackupFiles : public ::testing::Test {
 protected:
  BackupFiles() {
    fs::create_directories(vault_ / "generations");
    fs::create_directory(folder_.path() / "out");
  }
  std::string save(const fs::path& path, ExistingFile existing = ExistingFile::refuse) {
    return refusalOf([&] { saveBackupFile(disk_, {path, existing, vault_}, base::SecretText("new")); });
  }

  test::TemporaryFolder folder_;
  const fs::path vault_ = folder_.path() / "vault";
  const fs::path out_ = folder_.path() / "out" / "a.sorvane-backup";
  Disk disk_;
};

TEST_F(BackupFiles, goNowhereInTheVaultsFolderWhicheverWayLeadsThere) {
  fs::create_directory_symlink(vault_, folder_.path() / "link");
  std::ofstream(vault_ / "generations" / "b") << "kept";
  fs::create_symlink(vault_ / "generations" / "b", folder_.path() / "out" / "to-file");
  for (const fs::path& path : {vault_ / "b", vault_ / "generations" / "b", folder_.path() / "link" / "b",
                               folder_.path() / "link" / "generations" / "b",
                               folder_.path() / "out" / ".." / "vault" / "b", folder_.path() / "out" / "to-file"}) {
    EXPECT_EQ(save(path, ExistingFile::replace), "Choose a location outside sorvane’s working vault folder.") << path;
  }
  EXPECT_EQ(disk_.list(vault_), std::vector<std::string>{"generations"});
  EXPECT_EQ(test::textOfFile(vault_ / "generations" / "b"), "kept");
  EXPECT_EQ(save(folder_.path() / "vault-copy"), "");
}

TEST_F(BackupFiles, replaceNothingUnlessToldAndKeepTheOldFileThroughEveryFailure) {
  EXPECT_EQ(save(out_), "");
  struct stat status {};
  ASSERT_EQ(::stat(out_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  std::ofstream(out_) << "old";
  EXPECT_EQ(save(out_), std::string(sentence::kFileExists));
  const std::pair<Disk::Fault, std::string_view> faults[] = {
      {Disk::Fault::full, "No backup was saved. Pick another folder and try again."},
      {Disk::Fault::notMoved, "No backup was saved. Pick another folder and try again."},
      {Disk::Fault::flippedOnWrite, "The saved file did not pass verification."}};
  for (const auto& [fault, sentence] : faults) {
    disk_.fault = fault;
    EXPECT_EQ(save(out_, ExistingFile::replace), sentence);
    EXPECT_EQ(test::textOfFile(out_), "old");
    EXPECT_EQ(disk_.list(out_.parent_path()).size(), 1U) << "something is left";
  }
  disk_.fault = Disk::Fault::none;
  const auto stopping = [] { throw BackupError(sentence::kExportCancelled); };
  EXPECT_EQ(refusalOf([&] {
              saveBackupFile(disk_, {out_, ExistingFile::replace, vault_}, base::SecretText("new"), stopping);
            }),
            "Export cancelled. No backup was saved.");
  EXPECT_EQ(test::textOfFile(out_), "old");
  EXPECT_EQ(disk_.list(out_.parent_path()).size(), 1U);
  EXPECT_EQ(save(out_, ExistingFile::replace), "");
  EXPECT_EQ(test::textOfFile(out_), "new");
  EXPECT_EQ(save(folder_.path() / "no" / "such" / "folder"), "No backup was saved. Pick another folder and try again.");
  EXPECT_EQ(save(folder_.path() / "out", ExistingFile::replace),
            "No backup was saved. Pick another folder and try again.");
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
