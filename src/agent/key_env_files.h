#pragma once

#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/protocol.h"
#include "base/clock.h"
#include "base/deadline_timer.h"
#include "base/error.h"
#include "base/files.h"
#include "base/mutex.h"
#include "base/secret_text.h"

namespace sorvane::agent {

class CommandRunner;

/// Variables whose values are provider keys; only these are ever written to a file.
inline constexpr std::array<std::string_view, 3> kProviderKeyNames{"ANTHROPIC_API_KEY", "OPENAI_API_KEY",
                                                                   "OPENROUTER_API_KEY"};
/// How long Git may take to say whether a path is in a work tree.
inline constexpr std::chrono::seconds kGitSeconds{5};

/// KeyEnvFileError refuses or fails a write; the word before the colon, where there is one, is read by programs.
class KeyEnvFileError : public base::Error {
 public:
  enum class Case { notAbsolute, exists, insideGitWorktree, noKeys, writeFailed };
  KeyEnvFileError(Case kind, const std::string& sentence) : Error(sentence), kind_(kind) {}
  static KeyEnvFileError notAbsolute();
  static KeyEnvFileError exists(const std::string& path);
  static KeyEnvFileError insideGitWorktree(const std::string& path);
  static KeyEnvFileError noKeys();
  /// `action` is "create" or "write".
  static KeyEnvFileError writeFailed(std::string_view action, const std::string& path, int number);
  Case kind() const { return kind_; }

 private:
  Case kind_;
};

/// KeyEnvFiles writes short-lived keys of task sessions into .env files for tools that read nothing else, and deletes
/// each when its session ends, when it expires, when the application stops, and at the next start, as long as nobody
/// changed it. What it wrote is recorded in "manifest.json" in its folder. Any thread; one file is written or deleted
/// at a time.
class KeyEnvFiles {
 public:
  struct Record {
    std::string path;  ///< absolute, its folder without links
    std::string taskSession;
    base::Date createdAt;
    base::Date expiresAt;
    std::string sha256;  ///< of the bytes as written
    bool managed = false;
    bool operator==(const Record&) const = default;
  };
  struct Key {
    std::string name;
    base::SecretText value;
    /// A provider's own key, a stand-in for one, or the address that a stand-in is good at.
    enum class Kind { real, standIn, address };
    Kind kind = Kind::real;
  };
  struct Written {
    std::string path;
    std::int64_t keys = 0;
    base::Date expiresAt;
    std::optional<std::string> warning;
    bool holdsRealKeys = false;
  };
  /// Where a file will lie; what was checked before the owner is asked.
  struct Place {
    std::string path;
    bool managed = false;
    std::optional<std::string> warning;
  };
  enum class GitWorktree { refuse, allow };

  /// `minimum` is the environment that Git gets. Files that an earlier run left are deleted by `removeAll`.
  KeyEnvFiles(std::filesystem::path directory, base::Files& files, const base::Clock& clock, CommandRunner& runner,
              std::vector<std::string> minimum);

  /// Without a path the place is "<session id>.env" in this object's folder. Throws KeyEnvFileError.
  Place place(const std::optional<std::string>& path, const std::string& sessionId, GitWorktree worktree);
  /// Throws KeyEnvFileError; no file is left behind then.
  Written write(const Place& place, const TaskSessionInfo& session, const std::vector<Key>& keys);

  void sessionsEnded(const std::vector<TaskSessionInfo>& sessions);
  void removeAll();

 private:
  template <typename Ends>
  void removeWhere(const Ends& ends);
  void expire();
  void armTimer() REQUIRES(mutex_);
  std::vector<Record> load() const;
  void save() REQUIRES(mutex_);
  struct GitAnswer {
    std::optional<std::int32_t> exitCode;  ///< absent when it could not be started
    std::string output;
  };
  GitAnswer askGit(const std::string& folder, std::vector<std::string> words);
  bool isInWorktree(const std::string& folder);

  // Constant after construction.
  const std::filesystem::path directory_;
  base::Files& files_;
  const base::Clock& clock_;
  CommandRunner& runner_;
  const std::vector<std::string> minimum_;
  // Guarded. Held over the files, which it guards too.
  base::Mutex mutex_;
  std::vector<Record> records_ GUARDED_BY(mutex_);
  // The last member: its thread is joined before the others go.
  base::DeadlineTimer timer_;
};

/// Whether one of them is a provider's own key.
bool holdsReal(const std::vector<KeyEnvFiles::Key>& keys);

/// The text of such a file.
base::SecretText keyEnvFileText(const std::vector<KeyEnvFiles::Key>& keys, base::Date expiresAt);

}  // namespace sorvane::agent
