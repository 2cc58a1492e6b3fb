#include "platform/linux/managed_settings.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <nlohmann/json.hpp>

#include "base/descriptor.h"
#include "base/json.h"

namespace sorvane::platform {
namespace {

constexpr char kMember[] = "UnlockFollowsSession";

/// The whole file, or why it does not count.
struct Contents {
  std::string text;
  std::string refusal;
};

Contents read(int file) {
  struct stat status {};
  if (::fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) return {{}, "it is no regular file"};
  if (status.st_uid != 0) return {{}, "it does not belong to root"};
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return {{}, "others than root may write it"};
  std::string text(kMaxManagedBytes + 1, '\0');
  std::size_t size = 0;
  while (size < text.size()) {
    const ssize_t got = ::read(file, text.data() + size, text.size() - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return {{}, "it cannot be read"};
    if (got == 0) break;
    size += static_cast<std::size_t>(got);
  }
  if (size > kMaxManagedBytes) return {{}, "it is too long"};
  text.resize(size);
  return {std::move(text), {}};
}

}  // namespace

std::optional<bool> managedFollowsSession(const std::filesystem::path& path,
                                          const std::function<void(const std::string&)>& warn) {
  const auto ignored = [&](const std::string& why) -> std::optional<bool> {
    warn("The organization's settings in " + path.string() + " were not used: " + why +
         ". Ask whoever looks after this computer to put it right.");
    return std::nullopt;
  };
  // A pipe in its place must not hold the start up.
  const base::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  if (!file) return errno == ENOENT || errno == ENOTDIR ? std::nullopt : ignored("it cannot be opened");
  const Contents contents = read(file.get());
  if (!contents.refusal.empty()) return ignored(contents.refusal);
  const auto json = base::parseJson(contents.text);
  if (!json || !json->is_object()) return ignored("it is no JSON object");
  const auto member = json->find(kMember);
  if (member == json->end()) return std::nullopt;
  if (!member->is_boolean()) return ignored(std::string(kMember) + " is neither true nor false");
  return member->get<bool>();
}

}  // namespace sorvane::platform
