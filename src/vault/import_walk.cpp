#include "vault/import_walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <exception>
#include <iterator>
#include <memory>
#include <set>
#include <system_error>
#include <thread>
#include <unordered_set>
#include <utility>

#include "base/descriptor.h"
#include "base/mutex.h"
#include "vault/records.h"

namespace sorvane::vault {
namespace {

constexpr std::string_view kUnreadable = "Could not read this file.";
constexpr std::array<std::string_view, 6> kTemplateSuffixes{".example", ".sample",   ".template",
                                                            ".dist",    ".defaults", ".tpl"};

bool isIgnoredFolder(std::string_view name) {
  static const std::unordered_set<std::string_view> kSkipped{
      "node_modules", ".git",         ".next",      ".nuxt",       ".svelte-kit",  "dist",        "build",     "out",
      "target",       "vendor",       ".venv",      "venv",        "Pods",         "DerivedData", ".cache",    ".turbo",
      "coverage",     "legacy-tauri", ".terraform", "__pycache__", ".open-next",   ".vercel",     ".wrangler", ".sst",
      ".serverless",  ".output",      ".gradle",    ".idea",       ".pytest_cache"};
  return kSkipped.contains(name);
}

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
/// How long the calling thread waits for work before it asks again whether to proceed.
constexpr std::chrono::milliseconds kAskAgain{20};
/// Folders that must be waiting before a second thread is worth its start.
constexpr std::size_t kWorthAThread = 8;

/// The suffix behind ".env." or ".dev.vars."; empty when there is none.
std::string_view suffixOf(std::string_view fileName) {
  for (const std::string_view start : {std::string_view(".env."), std::string_view(".dev.vars.")}) {
    if (fileName.starts_with(start)) return fileName.substr(start.size());
  }
  return {};
}

struct CloseFolder {
  void operator()(DIR* folder) const { ::closedir(folder); }
};
using OpenFolder = std::unique_ptr<DIR, CloseFolder>;

/// A folder that is to be read. `parent` stays open until it is, so that it is reached without the path to it, any part
/// of which may have become a link meanwhile.
struct Pending {
  std::shared_ptr<DIR> parent;
  std::string path;
  std::size_t nameAt = 0;  ///< where the folder's own name begins in `path`
  std::size_t depth = 0;
};

/// What one thread found.
struct Found {
  std::vector<ImportCandidate> files;
  std::vector<std::string> unreadable;
  bool tooDeep = false;
};

/// Walk shares the folders that wait between the threads, the newest first: few of them are open at a time then.
class Walk {
 public:
  void start(const std::filesystem::path& root) {
    base::Lock lock(mutex_);
    waiting_.push_back({nullptr, root.string(), 0, 0});
  }

  /// Reads folders until none is left or `proceed` says no.
  Found work(const std::function<bool()>& proceed) {
    Found found;
    std::vector<Pending> below;
    while (std::optional<Pending> next = take(proceed)) {
      readFolder(*next, found, below);
      next.reset();
      give(below);
    }
    return found;
  }

  void stop() EXCLUDES(mutex_) {
    base::Lock lock(mutex_);
    stopped_ = true;
    changed_.notify_all();
  }

  bool worthAThread() EXCLUDES(mutex_) {
    base::Lock lock(mutex_);
    return waiting_.size() >= kWorthAThread;
  }

 private:
  std::optional<Pending> take(const std::function<bool()>& proceed) EXCLUDES(mutex_) {
    while (true) {
      if (proceed && !proceed()) stop();
      base::Lock lock(mutex_);
      if (!stopped_ && !waiting_.empty()) {
        Pending next = std::move(waiting_.back());
        waiting_.pop_back();
        ++reading_;
        return next;
      }
      if (stopped_ || reading_ == 0) return std::nullopt;
      if (proceed) {
        changed_.wait_for(lock.mutex(), kAskAgain);
      } else {
        changed_.wait(lock.mutex());
      }
    }
  }

  /// Ends the reading of a folder that was taken; `below` is what it holds, and is emptied.
  void give(std::vector<Pending>& below) EXCLUDES(mutex_) {
    base::Lock lock(mutex_);
    --reading_;
    const bool wake = !below.empty() || reading_ == 0;
    std::move(below.begin(), below.end(), std::back_inserter(waiting_));
    below.clear();
    if (wake) changed_.notify_all();
  }

  static void readFolder(const Pending& folder, Found& found, std::vector<Pending>& below);

  base::Mutex mutex_;
  base::Condition changed_;
  std::vector<Pending> waiting_ GUARDED_BY(mutex_);
  std::size_t reading_ GUARDED_BY(mutex_) = 0;
  bool stopped_ GUARDED_BY(mutex_) = false;
};

std::string joined(const std::string& folder, std::string_view name) {
  std::string path;
  path.reserve(folder.size() + 1 + name.size());
  path += folder;
  if (!path.ends_with('/')) path += '/';
  return path.append(name);
}

OpenFolder openFolder(const Pending& folder) {
  // The root is what the person named, a link to it included.
  base::Descriptor opened(
      folder.parent ? ::openat(::dirfd(folder.parent.get()), folder.path.c_str() + folder.nameAt, kFolderFlags)
                    : ::open(folder.path.c_str(), kFolderFlags & ~O_NOFOLLOW));
  if (!opened) return nullptr;
  OpenFolder stream(::fdopendir(opened.get()));
  if (stream) opened.release();
  return stream;
}

/// The entry's type, asked for where the file system does not tell.
unsigned char typeOf(DIR* folder, const dirent& entry) {
  if (entry.d_type != DT_UNKNOWN) return entry.d_type;
  struct stat status {};
  if (::fstatat(::dirfd(folder), entry.d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) return DT_UNKNOWN;
  return S_ISDIR(status.st_mode) ? DT_DIR : S_ISREG(status.st_mode) ? DT_REG : DT_UNKNOWN;
}

void addCandidate(DIR* folder, const std::string& path, const char* name, Found& found) {
  struct stat status {};
  if (::fstatat(::dirfd(folder), name, &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(status.st_mode)) return;
  found.files.push_back({joined(path, name), status.st_dev, status.st_ino});
}

void Walk::readFolder(const Pending& folder, Found& found, std::vector<Pending>& below) {
  const std::shared_ptr<DIR> stream = openFolder(folder);
  if (!stream) {
    // A folder that went away or became something else meanwhile is none of this tree's any more.
    const bool gone = folder.parent && (errno == ENOENT || errno == ENOTDIR || errno == ELOOP);
    if (!gone) found.unreadable.push_back(folder.path);
    return;
  }
  while (true) {
    errno = 0;
    const dirent* entry = ::readdir(stream.get());
    if (entry == nullptr) break;
    const std::string_view name = entry->d_name;
    const bool maybeFile = name.front() == '.' && isEnvFileName(name);
    if (!maybeFile && entry->d_type != DT_DIR && entry->d_type != DT_UNKNOWN) continue;
    if (name == "." || name == "..") continue;
    const unsigned char type = typeOf(stream.get(), *entry);
    if (type == DT_REG && maybeFile) addCandidate(stream.get(), folder.path, entry->d_name, found);
    if (type != DT_DIR || isIgnoredFolder(name)) continue;
    if (folder.depth == kMaxWalkDepth) {
      found.tooDeep = true;
      continue;
    }
    std::string path = joined(folder.path, name);
    const std::size_t nameAt = path.size() - name.size();
    below.push_back({stream, std::move(path), nameAt, folder.depth + 1});
  }
  if (errno != 0) found.unreadable.push_back(folder.path);
}

/// SecondThread helps with a walk and is joined on every way out.
class SecondThread {
 public:
  explicit SecondThread(Walk& walk) : walk_(walk) {}
  ~SecondThread() {
    walk_.stop();
    if (thread_.joinable()) thread_.join();
  }
  SecondThread(const SecondThread&) = delete;
  SecondThread& operator=(const SecondThread&) = delete;

  void startWhenWorthIt() {
    if (tried_ || !walk_.worthAThread()) return;
    tried_ = true;
    try {
      thread_ = std::thread([this] { run(); });
    } catch (const std::system_error&) {
      // The calling thread does all of it then.
    }
  }

  /// Waits for the end of the walk; throws what ended the thread.
  Found join() {
    if (thread_.joinable()) thread_.join();
    if (failure_) std::rethrow_exception(failure_);
    return std::move(found_);
  }

 private:
  void run() noexcept {
    try {
      found_ = walk_.work({});
    } catch (...) {
      failure_ = std::current_exception();
      walk_.stop();
    }
  }

  Walk& walk_;
  bool tried_ = false;
  std::thread thread_;
  // Written by the thread, read when it has been joined.
  Found found_;
  std::exception_ptr failure_;
};

void append(WalkResult& result, Found&& found) {
  std::move(found.files.begin(), found.files.end(), std::back_inserter(result.files));
  std::move(found.unreadable.begin(), found.unreadable.end(), std::back_inserter(result.unreadable));
  result.tooDeep |= found.tooDeep;
}

void order(WalkResult& result) {
  std::sort(result.files.begin(), result.files.end(),
            [](const auto& left, const auto& right) { return left.path.native() < right.path.native(); });
  std::set<std::pair<dev_t, ino_t>> known;
  std::erase_if(result.files, [&](const auto& file) { return !known.insert({file.device, file.inode}).second; });
  std::sort(result.unreadable.begin(), result.unreadable.end());
}

bool isWithin(const std::filesystem::path& inner, const std::filesystem::path& outer) {
  const auto [end, ignored] = std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end());
  return end == outer.end();
}

}  // namespace

bool isEnvFileName(std::string_view name) {
  if (name != ".env" && name != ".dev.vars" && !name.starts_with(".env.") && !name.starts_with(".dev.vars.")) {
    return false;
  }
  std::string lower(name);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); });
  return std::none_of(kTemplateSuffixes.begin(), kTemplateSuffixes.end(),
                      [&](std::string_view suffix) { return lower.ends_with(suffix); });
}

WalkResult walkForEnvFiles(const std::filesystem::path& root, const std::function<bool()>& proceed) {
  Walk walk;
  walk.start(std::filesystem::absolute(root).lexically_normal());
  WalkResult result;
  {
    SecondThread second(walk);
    append(result, walk.work([&] {
      second.startWhenWorthIt();
      return !proceed || proceed();
    }));
    append(result, second.join());
  }
  order(result);
  return result;
}

FileRead readCandidate(const ImportCandidate& candidate) {
  const auto refused = [](std::string_view sentence) { return FileRead{{}, std::string(sentence)}; };
  const base::Descriptor file(::open(candidate.path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return refused(kUnreadable);
  if (status.st_dev != candidate.device || status.st_ino != candidate.inode) return refused(kUnreadable);
  base::SecretText text;
  std::array<char, 16384> piece;
  ssize_t got = 0;
  while (text.size() <= kMaxEnvFileBytes) {
    got = ::read(file.get(), piece.data(), piece.size());
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    text.append({piece.data(), static_cast<std::size_t>(got)});
  }
  base::wipe(piece.data(), piece.size());
  if (got < 0) return refused(kUnreadable);
  if (text.size() > kMaxEnvFileBytes)
    return refused("This file is larger than 1 MiB, so nothing of it was read. Move its keys to a smaller .env file.");
  return {std::move(text), {}};
}

std::optional<std::string> tooBroad(const std::filesystem::path& folder, const std::filesystem::path& home,
                                    const std::filesystem::path& supportFolder) {
  const bool isHome = folder.parent_path() == "/home" || folder.parent_path() == "/Users" || folder == "/root";
  if (folder != "/" && !isHome && !(!home.empty() && isWithin(home, folder)) && !isWithin(supportFolder, folder) &&
      !isWithin(folder, supportFolder)) {
    return std::nullopt;
  }
  return "pick a project folder, not " + folder.string();
}

std::string environmentNameFor(const std::filesystem::path& folder, std::string_view fileName) {
  const std::string name = folder.filename().string();
  const std::string_view suffix = suffixOf(fileName);
  return suffix.empty() ? name : name + " (" + std::string(suffix) + ")";
}

std::optional<std::string> proposedTarget(std::string_view fileName) {
  const auto target = deploymentTargetOf(suffixOf(fileName));
  return target ? std::optional(std::string(word(*target))) : std::nullopt;
}

}  // namespace sorvane::vault
