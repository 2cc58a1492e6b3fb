#include "agent/owner_server.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/diagnostics.h"
#include "base/open_descriptors.h"
#include "base/support_folder.h"
#include "base/system.h"

namespace sorvane::agent {
namespace {

constexpr std::string_view kBusy =
    "sorvane is handling as many requests as it can. Nothing was changed. Try again in a moment.";
constexpr std::string_view kBadRequest =
    "sorvaned does not understand this request about the lock. Nothing was changed. Use the sorvane that came with it.";
constexpr std::string_view kTooLarge = "This request about the lock is too large. Nothing was changed.";
constexpr std::string_view kFailed =
    "sorvane met something that it was not made for. Look at status before you try again.";

/// Whether somebody accepts connections at `path`.
bool isServed(const std::filesystem::path& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string text = path.string();
  if (text.size() + 1 > base::maxSocketPath()) return false;
  std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
  const base::Descriptor socket = base::openSocket(AF_UNIX, SOCK_STREAM);
  if (!socket || !base::setNonBlocking(socket.get())) return false;
  // A full queue is somebody's too.
  return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 || errno == EAGAIN ||
         errno == EINPROGRESS;
}

/// Why the name cannot be taken; nullopt when nothing is there, or the socket of a process that is gone.
std::optional<std::string> obstacle(const std::filesystem::path& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return std::nullopt;
  if (!S_ISSOCK(status.st_mode) || status.st_uid != ::geteuid()) {
    return path.string() + " is no socket of this user, so it was left alone. Move it away";
  }
  if (isServed(path)) return "another process serves " + path.string();
  return std::nullopt;
}

BackupToOpen toOpen(OwnerRequest& request) {
  return {*request.file, std::move(request.passphrase), std::move(request.recoveryKey)};
}

/// A request known to the watch for as long as this lives.
class Watched {
 public:
  Watched(HangupWatch& hangups, int socket) : hangups_(hangups), id_(hangups.add(socket, stop_)) {}
  ~Watched() { hangups_.remove(id_); }
  Watched(const Watched&) = delete;
  Watched& operator=(const Watched&) = delete;
  std::stop_source& stop() { return stop_; }

 private:
  HangupWatch& hangups_;
  std::stop_source stop_;
  const HangupWatch::Id id_;
};

}  // namespace

/// A request's place among those of its kind for as long as this lives; without one it is to be refused. A request to
/// lock needs none.
class OwnerServer::Place {
 public:
  Place(OwnerServer& server, OwnerOp op) : server_(server), op_(op) {
    const base::Lock lock(server_.mutex_);
    std::size_t* const taken = count();
    hasPlace_ = taken == nullptr || *taken < (op_ == OwnerOp::status ? kMostReports : kMostWaiting);
    if (hasPlace_ && taken != nullptr) ++*taken;
  }
  ~Place() {
    const base::Lock lock(server_.mutex_);
    if (std::size_t* const taken = count(); hasPlace_ && taken != nullptr) --*taken;
  }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;
  explicit operator bool() const { return hasPlace_; }

 private:
  std::size_t* count() REQUIRES(server_.mutex_) {
    if (op_ == OwnerOp::lock) return nullptr;
    return op_ == OwnerOp::status ? &server_.reports_ : &server_.waiting_;
  }

  OwnerServer& server_;
  const OwnerOp op_;
  bool hasPlace_ = false;
};

OwnerServer::OwnerServer(const std::filesystem::path& supportFolder, Ports ports, std::chrono::milliseconds watchEvery)
    : path_(supportFolder / base::kOwnerSocketName),
      files_(ports.files),
      lock_(ports.lock),
      restore_(ports.restore),
      requests_(
          "owner", [this](const ReceivedRequest& received, const RequestPeer& peer) { return answer(received, peer); },
          [] { return encodeOwnerAnswer(OwnerAnswer::refused("busy", std::string(kBusy))); }) {
  if (watchEvery > std::chrono::milliseconds::zero()) {
    watch_.emplace("owner", supportFolder, watchEvery, [this] { return checkSocket(); });
  }
}

OwnerServer::~OwnerServer() {
  watch_.reset();
  stop();
  requests_.drain();
}

bool OwnerServer::start() {
  const base::Lock lifecycle(lifecycle_);
  if (isRunning_) return true;
  auto failure = obstacle(path_);
  if (!failure) failure = open();
  if (failure) {
    base::diagnose("owner", *failure);
    return false;
  }
  isRunning_ = true;
  return true;
}

std::optional<std::string> OwnerServer::open() {
  Listener listener = openListener(path_);
  if (listener.failure) return listener.failure;
  bound_ = listener.identity;
  {
    const base::Lock lock(mutex_);
    isStopped_ = false;
  }
  requests_.listen(std::move(listener.socket), "");
  return std::nullopt;
}

std::optional<std::string> OwnerServer::checkSocket() {
  const base::Lock lifecycle(lifecycle_);
  if (!isRunning_ || (bound_ && !requests_.hasFailed() && socketAt(path_) == bound_)) return std::nullopt;
  if (bound_) base::diagnose("owner", std::string(kListeningAgain));
  // Requests in flight keep their connections.
  requests_.close();
  bound_.reset();
  return open();
}

void OwnerServer::stop() {
  const base::Lock lifecycle(lifecycle_);
  if (!isRunning_) return;
  isRunning_ = false;
  {
    const base::Lock lock(mutex_);
    isStopped_ = true;
  }
  hangups_.withdrawAll();
  requests_.close();
  // What another process put under the name meanwhile is its own.
  if (!bound_ || socketAt(path_) != bound_) return;
  try {
    files_.remove(path_);
  } catch (const base::FileError& error) {
    base::diagnose("owner", error.sentence());
  }
}

base::SecretText OwnerServer::answer(const ReceivedRequest& received, const RequestPeer& peer) {
  if (received.tooLarge) {
    return encodeOwnerAnswer(OwnerAnswer::refused("requestTooLarge", std::string(kTooLarge)));
  }
  Watched watched(hangups_, peer.socket);
  {
    // It may have stopped before the watch knew of this request.
    const base::Lock lock(mutex_);
    if (isStopped_) watched.stop().request_stop();
  }
  LockCaller caller;
  caller.peer = peer.pid;
  caller.gone = watched.stop().get_token();
  return encodeOwnerAnswer(handle(received.bytes.view(), caller));
}

OwnerAnswer OwnerServer::handle(std::string_view bytes, const LockCaller& caller) {
  auto request = decodeOwnerRequest(bytes);
  if (!request) return OwnerAnswer::refused("badRequest", std::string(kBadRequest));
  const Place place(*this, request->op);
  if (!place) return OwnerAnswer::refused("busy", std::string(kBusy));
  try {
    if (request->op == OwnerOp::status) return {{}, lock_.report(), {}};
    if (request->op == OwnerOp::backupPreview) {
      OwnerRestore::Preview preview = restore_.preview(toOpen(*request));
      return {std::move(preview.outcome), {}, std::move(preview.backup)};
    }
    LockCaller asking = caller;
    asking.answersItself = request->answersItself;
    return {perform(std::move(*request), asking), {}, {}};
  } catch (const base::Error& error) {
    return OwnerAnswer::refused("failed", error.sentence());
  } catch (const std::exception&) {
    return OwnerAnswer::refused("failed", std::string(kFailed));
  }
}

LockOutcome OwnerServer::perform(OwnerRequest request, const LockCaller& caller) {
  const auto typed = [&request] {
    return TypedPassphrase{std::move(*request.newPassphrase), std::move(*request.confirmation)};
  };
  switch (request.op) {
    case OwnerOp::status:
    case OwnerOp::backupPreview:
      break;
    case OwnerOp::unlock:
      if (request.passphrase) return lock_.unlockWithPassphrase(std::move(*request.passphrase), caller);
      return lock_.unlockWithSystem(request.method.value_or(OwnerLock::Method::first), caller);
    case OwnerOp::lock:
      return lock_.lock(request.lock.value_or(OwnerLock::Lock::untilNextTime));
    case OwnerOp::setPassphrase:
      return lock_.setPassphrase(typed(), *request.requirement, caller);
    case OwnerOp::changePassphrase:
      return lock_.changePassphrase(std::move(*request.passphrase), typed(), caller);
    case OwnerOp::removePassphrase:
      return lock_.removePassphrase(std::move(request.passphrase), caller);
    case OwnerOp::require:
      return lock_.changeRequirement(*request.requirement, std::move(request.passphrase), caller);
    case OwnerOp::followSession:
      return lock_.changeFollowsSession(*request.follows, std::move(request.passphrase), caller);
    case OwnerOp::reset:
      return lock_.reset(caller);
    case OwnerOp::backupRestore:
      return restore(std::move(request), caller);
  }
  return {};
}

LockOutcome OwnerServer::restore(OwnerRequest request, const LockCaller& caller) {
  return restore_.restore({toOpen(request), *request.sha256, request.protectKeys}, caller);
}

}  // namespace sorvane::agent
