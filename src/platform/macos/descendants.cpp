#include "platform/macos/descendants.h"

#include <libproc.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <optional>

#include "platform/macos/process_tables.h"

namespace sorvane::platform {
namespace {

std::optional<proc_bsdinfo> infoOf(pid_t process) {
  proc_bsdinfo told{};
  constexpr int kSize = sizeof told;
  // Nothing for one that has ended and is not buried.
  if (::proc_pidinfo(process, PROC_PIDTBSDINFO, 0, &told, kSize) != kSize) return std::nullopt;
  return told;
}

std::uint64_t startOf(const proc_bsdinfo& info) {
  return info.pbi_start_tvsec * 1'000'000 + info.pbi_start_tvusec;
}

std::uint64_t now() {
  timespec time{};
  ::clock_gettime(CLOCK_REALTIME, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000 + static_cast<std::uint64_t>(time.tv_nsec) / 1000;
}

/// The system's name of the pipe's end behind a descriptor; 0 for anything else.
std::uint64_t pipeEndOf(pid_t process, int descriptor) {
  pipe_fdinfo told{};
  constexpr int kSize = sizeof told;
  const bool isTold = ::proc_pidfdinfo(process, descriptor, PROC_PIDFDPIPEINFO, &told, kSize) == kSize;
  return isTold ? told.pipeinfo.pipe_handle : 0;
}

bool isStill(pid_t process, std::uint64_t start) {
  const auto info = infoOf(process);
  return info && startOf(*info) == start;
}

}  // namespace

Descendants::Descendants(pid_t command, int output) : command_(command), output_(pipeEndOf(::getpid(), output)) {}

std::vector<pid_t> Descendants::look() {
  std::vector<pid_t> all, fresh;
  for (const auto& [process, start] : known_) all.push_back(process);
  for (const pid_t process : all) {
    if (!isStill(process, known_.at(process))) ended(process);
  }
  if (isGroupOurs_) {
    for (const pid_t member : listProcesses(PROC_PGRP_ONLY, static_cast<std::uint32_t>(command_))) {
      note(member, 0, fresh);
    }
  }
  for (const pid_t process : all) {
    for (const pid_t child : listProcesses(PROC_PPID_ONLY, static_cast<std::uint32_t>(process))) {
      note(child, process, fresh);
    }
  }
  descend(fresh, 0);
  return fresh;
}

std::vector<pid_t> Descendants::lookEverywhere() {
  std::vector<pid_t> fresh = look();
  const std::size_t from = fresh.size();
  for (const pid_t process : listProcesses(PROC_UID_ONLY, ::geteuid())) {
    if (isOfKnownSession(process) || holdsOutput(process)) note(process, 0, fresh);
  }
  descend(fresh, from);
  return fresh;
}

bool Descendants::holdsOutput(pid_t process) const {
  if (output_ == 0 || process == ::getpid()) return false;
  return std::ranges::any_of(listDescriptors(process), [&](const proc_fdinfo& descriptor) {
    return descriptor.proc_fdtype == PROX_FDTYPE_PIPE && pipeEndOf(process, descriptor.proc_fd) == output_;
  });
}

void Descendants::ended(pid_t process) {
  if (known_.erase(process) > 0) past_[process] = now();
}

bool Descendants::isOfKnownSession(pid_t process) const {
  // A session has the number of the process that began it, which nobody else gets while the session has members.
  const pid_t session = ::getsid(process);
  if (session <= 0 || known_.contains(session)) return session > 0;
  const auto leader = past_.find(session);
  if (leader == past_.end()) return false;
  // What started later may be in the session of another process that got the number.
  const auto info = infoOf(process);
  return info && startOf(*info) <= leader->second;
}

std::vector<pid_t> Descendants::lookBelow(pid_t parent) {
  std::vector<pid_t> fresh{parent};
  descend(fresh, 0);
  fresh.erase(fresh.begin());
  return fresh;
}

void Descendants::descend(std::vector<pid_t>& fresh, std::size_t from) {
  for (; from < fresh.size(); ++from) {
    const pid_t parent = fresh[from];
    for (const pid_t child : listProcesses(PROC_PPID_ONLY, static_cast<std::uint32_t>(parent))) {
      note(child, parent, fresh);
    }
  }
}

void Descendants::note(pid_t process, pid_t parent, std::vector<pid_t>& fresh) {
  if (known_.contains(process)) return;
  const auto info = infoOf(process);
  // Asked again: the number may have become another process's since it was listed.
  const auto isCommands = [&](const proc_bsdinfo& told) {
    if (parent > 1) return static_cast<pid_t>(told.pbi_ppid) == parent;
    return (isGroupOurs_ && static_cast<pid_t>(told.pbi_pgid) == command_) || isOfKnownSession(process) ||
           holdsOutput(process);
  };
  if (!info || !isCommands(*info)) return;
  known_.emplace(process, startOf(*info));
  fresh.push_back(process);
}

void Descendants::signal(int number) const {
  if (isGroupOurs_) ::kill(-command_, number);
  for (const auto& [process, start] : known_) {
    if (isStill(process, start)) ::kill(process, number);
  }
}

}  // namespace sorvane::platform
