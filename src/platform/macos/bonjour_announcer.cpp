#include "platform/macos/bonjour_announcer.h"

#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>

#include <array>
#include <cerrno>
#include <future>

#include "base/diagnostics.h"
#include "base/open_descriptors.h"
#include "platform/macos/bonjour_call.h"
#include "platform/macos/bonjour_text.h"

namespace sorvane::platform {
namespace {

constexpr char kNotReached[] =
    "This computer is not announced on the local network, because Bonjour cannot be reached. Restart the computer, or "
    "type the address and the port on the phone.";
constexpr char kNotAllowed[] =
    "This computer is not announced on the local network, because macOS does not let sorvane use it. Allow sorvane in "
    "System Settings, Privacy & Security, Local Network, or type the address and the port on the phone.";
constexpr char kNotSayable[] =
    "This computer is not announced on the local network, because what it would say about itself does not fit. "
    "Type the address and the port on the phone.";

struct Service {
  std::string name;
  std::uint16_t port = 0;
  std::vector<std::uint8_t> text;
};

/// kDNSServiceErr_PolicyDenied, which not every header of this name has.
constexpr DNSServiceErrorType kPolicyDenied = -65570;

std::string sentenceFor(DNSServiceErrorType error) {
  return error == kDNSServiceErr_NoAuth || error == kPolicyDenied ? kNotAllowed : kNotReached;
}

}  // namespace

/// Keeper is what the thread works on.
class BonjourAnnouncer::Keeper {
 public:
  Keeper(Service service, std::chrono::milliseconds tryAgain, base::Pipe pipe)
      : service_(std::move(service)), tryAgain_(tryAgain), awake_(std::move(pipe.read)), end_(std::move(pipe.write)) {}

  /// The daemon's first answer.
  std::future<DNSServiceErrorType> first() { return first_.get_future(); }

  void run() {
    do {
      took(keep());
    } while (wait(-1, static_cast<int>(tryAgain_.count())) == Woken::byTime);
  }

  /// From another thread, once.
  void end() { end_.reset(); }

 private:
  enum class Woken { byTime, byDaemon, byEnd };

  /// Announces, and returns why it is over. kDNSServiceErr_NoError: it was ended.
  DNSServiceErrorType keep() {
    BonjourCall call;
    const DNSServiceErrorType refused = call.begin([this](DNSServiceRef* place) {
      return ::DNSServiceRegister(place, 0, kDNSServiceInterfaceIndexAny, service_.name.c_str(), kBonjourType, nullptr,
                                  nullptr, htons(service_.port), static_cast<std::uint16_t>(service_.text.size()),
                                  service_.text.data(), &Keeper::answered, this);
    });
    if (refused != kDNSServiceErr_NoError) return refused;
    answer_ = kDNSServiceErr_NoError;
    while (answer_ == kDNSServiceErr_NoError) {
      if (wait(call.descriptor(), kForEver) == Woken::byEnd) return kDNSServiceErr_NoError;
      const DNSServiceErrorType error = call.process();
      if (error != kDNSServiceErr_NoError) return error;
    }
    return answer_;
  }

  static void DNSSD_API answered(DNSServiceRef, DNSServiceFlags, DNSServiceErrorType error, const char*, const char*,
                                 const char*, void* keeper) {
    auto* const self = static_cast<Keeper*>(keeper);
    self->answer_ = error;
    if (error == kDNSServiceErr_NoError) self->took(error);
  }

  /// Tells who waits for the first answer. An outage is said once.
  void took(DNSServiceErrorType error) {
    if (!std::exchange(isTold_, true)) first_.set_value(error);
    const bool wasOut = std::exchange(isOut_, error != kDNSServiceErr_NoError);
    if (isOut_ && !wasOut) base::diagnose("phone", sentenceFor(error));
  }

  Woken wait(int daemon, int milliseconds) {
    std::array<pollfd, 2> ends{{{awake_.get(), POLLIN, 0}, {daemon, POLLIN, 0}}};
    int count = 0;
    do {
      count = ::poll(ends.data(), ends.size(), milliseconds);
    } while (count < 0 && errno == EINTR);
    if (ends[0].revents != 0 || count < 0) return Woken::byEnd;
    return count == 0 ? Woken::byTime : Woken::byDaemon;
  }

  static constexpr int kForEver = -1;
  // Constant after construction.
  const Service service_;
  const std::chrono::milliseconds tryAgain_;
  const base::Descriptor awake_;  ///< hung up when `end_` is closed
  // The thread's own.
  std::promise<DNSServiceErrorType> first_;
  DNSServiceErrorType answer_ = kDNSServiceErr_NoError;
  bool isTold_ = false, isOut_ = false;
  // Of who ends it.
  base::Descriptor end_;
};

BonjourAnnouncer::~BonjourAnnouncer() {
  withdraw();
}

std::optional<std::string> BonjourAnnouncer::announce(const std::string& name, std::uint16_t port,
                                                      const std::vector<std::string>& records) {
  auto text = bonjourText(records);
  auto pipe = base::openPipe();
  const base::Lock lock(mutex_);
  end();
  if (!text) return kNotSayable;
  if (!pipe) return kNotReached;
  keeper_ = std::make_shared<Keeper>(Service{bonjourName(name), port, std::move(*text)}, tryAgain_, std::move(*pipe));
  auto first = keeper_->first();
  sigset_t all, earlier;
  sigfillset(&all);
  // Signals are for the threads that wait for them.
  ::pthread_sigmask(SIG_SETMASK, &all, &earlier);
  thread_ = std::thread([keeper = keeper_] { keeper->run(); });
  ::pthread_sigmask(SIG_SETMASK, &earlier, nullptr);
  if (first.wait_for(firstAnswer_) != std::future_status::ready) return std::nullopt;
  const DNSServiceErrorType error = first.get();
  return error == kDNSServiceErr_NoError ? std::nullopt : std::optional(sentenceFor(error));
}

void BonjourAnnouncer::withdraw() {
  const base::Lock lock(mutex_);
  end();
}

void BonjourAnnouncer::end() {
  if (!keeper_) return;
  keeper_->end();
  thread_.join();
  keeper_.reset();
}

}  // namespace sorvane::platform
