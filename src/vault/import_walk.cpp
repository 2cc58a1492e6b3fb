#include "vault/import_walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <memory>
#include <set>
#include <unordered_set>

#include "base/descriptor.h"
#include "vault/records.h"

namespace sorvane::vault {
namespace {

constexpr std::string_view kUnreadable = "Could not read this file.";
constexpr std::array<std::string_view, 6> kTemplateSuffixes{".example", ".sample",   ".template",
                                                            ".dist",    ".defaults", ".tpl"};

bool isSkippedFolder(std::string_view name) {
  static const std::unordered_set<std::string_view> kSkipped{
      "node_modules", ".git",         ".next",      ".nuxt",       ".svelte-kit",  "dist",        "build",     "out",
      "target",       "vendor",       ".venv",      "venv",        "Pods",         "DerivedData", ".cache",    ".turbo",
      "coverage",     "legacy-tauri", ".terraform", "__pycache__", ".open-next",   ".vercel",     ".wrangler", ".sst",
      ".serverless",  ".output",      ".gradle",    ".idea",       ".pytest_cache"};
  return kSkipped.contains(name);
}

/// The suffix behind ".env." or ".dev.vars."; empty when there is none.
std::string_view suffixOf(std::string_view fileName) {
  for (const std::string_view start : {std::string_view(".env."), std::string_view(".dev.vars.")}) {
    if (fileName.starts_with(start)) return fileName.substr(start.size());
  }
  return {};
}

struct CloseFolder {
  void operator()(DIR* folder) const noexcept { ::closedir(folder); }
};

/// Walk goes through the folders depth first with one open folder a level; names are compared, files are not opened.
class Walk {
 public:
  explicit Walk(const std::filesystem::path& root) : root_(root), path_(root.string()) {}

  WalkResult run() {
    enter(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC), 0);
    std::sort(result_.files.begin(), result_.files.end(),
              [](const ImportCandidate& a, const ImportCandidate& b) { return a.path < b.path; });
    return std::move(result_);
  }

 private:
  void enter(int opened, int depth) {
    base::Descriptor fd(opened);
    const std::unique_ptr<DIR, CloseFolder> folder(fd ? ::fdopendir(fd.get()) : nullptr);
    if (!folder) {
      // A folder that was removed or replaced meanwhile is not there any more.
      if (errno != ENOENT && errno != ENOTDIR && errno != ELOOP) result_.unreadable.push_back(path_);
      return;
    }
    const int number = fd.release();
    while (const dirent* const entry = ::readdir(folder.get())) see(number, *entry, depth);
  }

  void see(int folder, const dirent& entry, int depth) {
    const std::string_view name(entry.d_name);
    unsigned char type = entry.d_type;
    // Most entries are files of other names; they cost a comparison.
    if (type == DT_REG && name.front() != '.') return;
    if (name == "." || name == "..") return;
    struct stat status {};
    if (type == DT_UNKNOWN) {
      if (::fstatat(folder, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) return;
      type = S_ISDIR(status.st_mode) ? DT_DIR : S_ISREG(status.st_mode) ? DT_REG : S_ISLNK(status.st_mode) ? DT_LNK : 0;
    }
    if (type == DT_DIR) return descend(folder, entry.d_name, depth);
    if ((type == DT_REG || type == DT_LNK) && isEnvFileName(name)) candidate(folder, entry.d_name, type == DT_LNK);
  }

  void descend(int folder, const char* name, int depth) {
    if (isSkippedFolder(name)) return;
    if (depth + 1 > kMaxWalkDepth) {
      result_.tooDeep = true;
      return;
    }
    const std::size_t length = path_.size();
    path_.append("/").append(name);
    enter(::openat(folder, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC), depth + 1);
    path_.resize(length);
  }

  void candidate(int folder, const char* name, bool isLink) {
    std::filesystem::path path = std::filesystem::path(path_) / name;
    struct stat status {};
    if (isLink) {
      const std::unique_ptr<char, decltype(&::free)> target(::realpath(path.c_str(), nullptr), &::free);
      if (!target || !std::string_view(target.get()).starts_with(root_.string() + "/")) return;
      path = target.get();
      if (::lstat(path.c_str(), &status) != 0) return;
    } else if (::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      return;
    }
    if (!S_ISREG(status.st_mode) || !seen_.emplace(status.st_dev, status.st_ino).second) return;
    result_.files.push_back({std::move(path), status.st_dev, status.st_ino});
  }

  const std::filesystem::path root_;
  std::string path_;
  WalkResult result_;
  std::set<std::pair<dev_t, ino_t>> seen_;
};

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

WalkResult walkForEnvFiles(const std::filesystem::path& root) {
  return Walk(root).run();
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
  if (text.size() > kMaxEnvFileBytes) return refused("This file is larger than 1 MB, so nothing of it was read.");
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
