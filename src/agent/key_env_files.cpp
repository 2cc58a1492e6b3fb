#include "agent/key_env_files.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <nlohmann/json.hpp>

#include "agent/command_runner.h"
#include "base/date.h"
#include "base/descriptor.h"
#include "base/diagnostics.h"
#include "base/json.h"
#include "base/json_writer.h"
#include "base/system.h"
#include "base/unicode.h"
#include "crypto/digest.h"
#include "vault/env_value.h"

namespace sorvane::agent {
namespace {

constexpr std::string_view kManifestName = "manifest.json";
/// Larger than any file that was written: three keys of the largest size, quoted.
constexpr std::size_t kMostBytes = 64 * 1024;

std::string manifestText(const std::vector<KeyEnvFiles::Record>& records) {
  base::JsonWriter out(base::JsonWriter::Style::pretty);
  out.beginArray();
  for (const KeyEnvFiles::Record& record : records) {
    out.beginObject().field("path", record.path).field("taskSession", record.taskSession);
    out.field("createdAt", base::iso8601(record.createdAt)).field("expiresAt", base::iso8601(record.expiresAt));
    out.field("sha256", record.sha256).key("managed").boolean(record.managed).endObject();
  }
  out.endArray();
  return std::string(out.view());
}

std::optional<KeyEnvFiles::Record> recordOf(const base::Json& json) {
  KeyEnvFiles::Record record;
  const auto text = [&](const char* name, std::string& into) {
    const auto found = json.find(name);
    if (found == json.end() || !found->is_string()) return false;
    into = found->get<std::string>();
    return true;
  };
  std::string created, expires;
  if (!json.is_object() || !text("path", record.path) || !text("taskSession", record.taskSession) ||
      !text("sha256", record.sha256) || !text("createdAt", created) || !text("expiresAt", expires)) {
    return std::nullopt;
  }
  const auto createdAt = base::parseIso8601(created), expiresAt = base::parseIso8601(expires);
  if (!createdAt || !expiresAt || !record.path.starts_with('/')) return std::nullopt;
  record.createdAt = *createdAt;
  record.expiresAt = *expiresAt;
  const auto managed = json.find("managed");
  record.managed = managed != json.end() && managed->is_boolean() && managed->get<bool>();
  return record;
}

/// The folder without links and the file's name in it.
std::string settledPath(const std::string& path) {
  const std::filesystem::path given(path);
  const std::string folder = given.parent_path().string();
  const std::unique_ptr<char, decltype(&::free)> resolved(::realpath(folder.c_str(), nullptr), &::free);
  if (!resolved) throw KeyEnvFileError::writeFailed("create", path, errno);
  if (!given.has_filename()) throw KeyEnvFileError::writeFailed("create", path, EISDIR);
  return (std::filesystem::path(resolved.get()) / given.filename()).string();
}

bool writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

void createFile(const std::string& path, const base::SecretText& text) {
  const base::Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file)
    throw errno == EEXIST ? KeyEnvFileError::exists(path) : KeyEnvFileError::writeFailed("create", path, errno);
  if (::fchmod(file.get(), 0600) == 0 && writeAll(file.get(), text.view())) return;
  const int number = errno;
  ::unlink(path.c_str());
  throw KeyEnvFileError::writeFailed("write", path, number);
}

std::string asideName(const std::string& path) {
  const std::filesystem::path whole(path);
  return (whole.parent_path() / ("." + whole.filename().string() + ".sorvane-deleting")).string();
}

/// Deletes what was moved aside when its bytes are those of the record, else puts it back.
void settleAside(base::Files& files, const KeyEnvFiles::Record& record, const std::string& aside) {
  bool ours = false;
  try {
    const auto contents = files.read(aside, kMostBytes);
    if (!contents) return;
    ours = crypto::sha256Hex(contents->bytes) == record.sha256;
  } catch (const base::FileError&) {
    // A folder, a link or something larger: not what was written.
  }
  if (ours)
    ::unlink(aside.c_str());
  else if (base::renameWithoutReplacing(aside.c_str(), record.path.c_str()) != 0)
    base::diagnose("agent", "a changed key file stays at " + aside);
}

/// Deletes the file unless it was changed. It is moved aside first: what another program writes from then on goes into
/// a new file, and what it wrote before is seen here.
void removeUnchanged(base::Files& files, const KeyEnvFiles::Record& record) {
  const std::string aside = asideName(record.path);
  // One that stands aside already was left by a run that stopped just then.
  settleAside(files, record, aside);
  if (base::renameWithoutReplacing(record.path.c_str(), aside.c_str()) == 0) settleAside(files, record, aside);
}

}  // namespace

KeyEnvFileError KeyEnvFileError::notAbsolute() {
  return {Case::notAbsolute, "invalid_path: give an absolute path"};
}
KeyEnvFileError KeyEnvFileError::exists(const std::string& path) {
  return {Case::exists, path + " already exists; sorvane never overwrites a file"};
}
KeyEnvFileError KeyEnvFileError::insideGitWorktree(const std::string& path) {
  return {Case::insideGitWorktree,
          "inside_git_worktree: " + path +
              " is inside a Git work tree. Choose a path outside it, or allow it explicitly and "
              "add the file to .gitignore."};
}
KeyEnvFileError KeyEnvFileError::noKeys() {
  return {Case::noKeys, "no_keys: this task session has no sorvane keys yet; request one first"};
}
KeyEnvFileError KeyEnvFileError::writeFailed(std::string_view action, const std::string& path, int number) {
  return {Case::writeFailed,
          "could not " + std::string(action) + " " + path + " (errno " + std::to_string(number) + ")"};
}

bool holdsReal(const std::vector<KeyEnvFiles::Key>& keys) {
  return std::any_of(keys.begin(), keys.end(),
                     [](const KeyEnvFiles::Key& key) { return key.kind == KeyEnvFiles::Key::Kind::real; });
}

base::SecretText keyEnvFileText(const std::vector<KeyEnvFiles::Key>& keys, base::Date expiresAt) {
  const bool real = holdsReal(keys);
  base::SecretText text(
      real ? "# sorvane compatibility .env: short-lived keys. Mint-mode lines hold a REAL provider key (limited, "
             "expiring, revocable); anything that can read this file can use it until then.\n"
           : "# sorvane compatibility .env: short-lived sorvane keys only, never real provider keys.\n");
  text.append("# Deleted automatically at ");
  text.append(base::iso8601(expiresAt));
  text.append(", when a key is revoked or the task session ends, or when sorvane quits.\n");
  for (const KeyEnvFiles::Key& key : keys) {
    vault::appendEnvLine(text, key.name, key.value.view());
    text.push_back('\n');
  }
  return text;
}

KeyEnvFiles::KeyEnvFiles(std::filesystem::path directory, base::Files& files, const base::Clock& clock,
                         CommandRunner& runner, std::vector<std::string> minimum)
    : directory_(std::move(directory)),
      files_(files),
      clock_(clock),
      runner_(runner),
      minimum_(std::move(minimum)),
      records_(load()),
      timer_(clock, [this] { expire(); }) {}

std::vector<KeyEnvFiles::Record> KeyEnvFiles::load() const {
  std::vector<Record> records;
  try {
    const auto contents = files_.read(directory_ / kManifestName);
    const auto json = contents ? base::parseJson(base::textOf(contents->bytes)) : std::nullopt;
    if (!json || !json->is_array()) return records;
    for (const base::Json& item : *json) {
      if (auto record = recordOf(item)) records.push_back(std::move(*record));
    }
  } catch (const base::FileError& error) {
    base::diagnose("agent", "the list of key files could not be read, so none is deleted: " + error.sentence());
  }
  return records;
}

void KeyEnvFiles::save() {
  files_.makeFolder(directory_);
  files_.writeAtomically(directory_ / kManifestName, base::bytesOf(manifestText(records_)));
}

KeyEnvFiles::GitAnswer KeyEnvFiles::askGit(const std::string& folder, std::vector<std::string> words) {
  CommandRequest command;
  command.words = {"/usr/bin/git", "-c", "core.fsmonitor=false"};
  command.words.insert(command.words.end(), std::make_move_iterator(words.begin()),
                       std::make_move_iterator(words.end()));
  command.directory = folder;
  command.timeLimit = kGitSeconds;
  for (const std::string& entry : minimum_) {
    const std::size_t equals = entry.find('=');
    if (entry.starts_with("LC_ALL=") || entry.starts_with("LANG")) continue;
    command.environment.push_back({entry.substr(0, equals), base::SecretText(entry.substr(equals + 1)), false});
  }
  command.environment.push_back({"GIT_OPTIONAL_LOCKS", base::SecretText("0"), false});
  // Its sentences are read below.
  command.environment.push_back({"LC_ALL", base::SecretText("C"), false});
  CommandControl control;
  CommandRunner::Outcome outcome = runner_.run(command, control);
  return {outcome.failure ? std::nullopt : outcome.result.exitCode, std::move(outcome.result.output)};
}

bool KeyEnvFiles::isInWorktree(const std::string& folder) {
  constexpr std::int32_t kNotFound = 127;
  const GitAnswer git = askGit(folder, {"rev-parse", "--is-inside-work-tree"});
  // Without Git there is no check.
  if (!git.exitCode || *git.exitCode == kNotFound) return false;
  const std::string_view answer = base::trimmed(git.output);
  if (*git.exitCode == 0) return answer != "false" && !answer.ends_with("\nfalse");
  // A Git that runs and cannot tell, as with damaged settings, may still be there for whoever commits.
  return answer.find("not a git repository") == std::string_view::npos;
}

KeyEnvFiles::Place KeyEnvFiles::place(const std::optional<std::string>& path, const std::string& sessionId,
                                      GitWorktree worktree) {
  Place place;
  place.managed = !path.has_value();
  if (place.managed) files_.makeFolder(directory_);
  const std::string wanted = path ? *path : (directory_ / (sessionId + ".env")).string();
  if (!wanted.starts_with('/')) throw KeyEnvFileError::notAbsolute();
  place.path = settledPath(wanted);
  struct stat status {};
  if (::lstat(place.path.c_str(), &status) == 0) throw KeyEnvFileError::exists(place.path);
  const std::string folder = std::filesystem::path(place.path).parent_path().string();
  if (!isInWorktree(folder) || askGit(folder, {"check-ignore", "-q", "--", place.path}).exitCode == 0) return place;
  if (worktree == GitWorktree::refuse) throw KeyEnvFileError::insideGitWorktree(place.path);
  place.warning = place.path + " is not in .gitignore, so Git could commit it. Add it to .gitignore now.";
  return place;
}

KeyEnvFiles::Written KeyEnvFiles::write(const Place& place, const TaskSessionInfo& session,
                                        const std::vector<Key>& keys) {
  if (keys.empty()) throw KeyEnvFileError::noKeys();
  const base::SecretText text = keyEnvFileText(keys, session.expiresAt);
  const base::Lock lock(mutex_);
  // The record comes first, so that a file is never without one; a record without its file deletes nothing.
  records_.push_back(
      {place.path, session.id, clock_.now(), session.expiresAt, crypto::sha256Hex(text.bytes()), place.managed});
  try {
    save();
    createFile(place.path, text);
  } catch (const base::FileError& error) {
    records_.pop_back();
    throw KeyEnvFileError::writeFailed("write", place.path, error.number());
  } catch (const KeyEnvFileError&) {
    records_.pop_back();
    try {
      save();
    } catch (const base::FileError&) {
      // The record then stays on disk; it deletes nothing that has other bytes.
    }
    throw;
  }
  armTimer();
  const auto count =
      std::count_if(keys.begin(), keys.end(), [](const Key& key) { return key.kind != Key::Kind::address; });
  return {place.path, count, session.expiresAt, place.warning, holdsReal(keys)};
}

template <typename Ends>
void KeyEnvFiles::removeWhere(const Ends& ends) {
  const base::Lock lock(mutex_);
  const auto kept = std::stable_partition(records_.begin(), records_.end(), [&](const Record& r) { return !ends(r); });
  if (kept == records_.end()) return armTimer();
  for (auto at = kept; at != records_.end(); ++at) removeUnchanged(files_, *at);
  records_.erase(kept, records_.end());
  try {
    save();
  } catch (const base::FileError& error) {
    base::diagnose("agent", "the list of key files could not be saved: " + error.sentence());
  }
  armTimer();
}

void KeyEnvFiles::sessionsEnded(const std::vector<TaskSessionInfo>& sessions) {
  removeWhere([&](const Record& record) {
    return std::any_of(sessions.begin(), sessions.end(),
                       [&](const TaskSessionInfo& session) { return session.id == record.taskSession; });
  });
}

void KeyEnvFiles::removeAll() {
  removeWhere([](const Record&) { return true; });
}

void KeyEnvFiles::expire() {
  const base::Date now = clock_.now();
  removeWhere([&](const Record& record) { return record.expiresAt <= now; });
}

void KeyEnvFiles::armTimer() {
  if (records_.empty()) return timer_.arm({});
  const auto next = std::min_element(records_.begin(), records_.end(),
                                     [](const Record& a, const Record& b) { return a.expiresAt < b.expiresAt; });
  timer_.arm(clock_.instant() + (next->expiresAt - clock_.now()));
}

}  // namespace sorvane::agent
