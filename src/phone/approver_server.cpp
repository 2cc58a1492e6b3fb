#include "phone/approver_server.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <deque>
#include <future>
#include <system_error>
#include <thread>
#include <utility>
#include <variant>

#include "base/diagnostics.h"
#include "base/open_descriptors.h"
#include "base/unicode.h"
#include "phone/link_service.h"
#include "phone/phone_error.h"

namespace sorvane::phone {
namespace {

constexpr char kClosed[] =
    "Phones are not served while the vault is locked. Nothing was changed. Unlock it with sorvane unlock, then try "
    "again.";

/// What fits the link's rule for names, whatever the computer is called.
std::string fittingName(const std::string& name) {
  std::string fitting;
  const std::string text = base::repairedUtf8(name);
  std::size_t characters = 0;
  for (std::string_view rest = text; !rest.empty() && characters < kMostNameCharacters; ++characters) {
    const auto next = base::decodeUtf8(rest);
    if (!base::isControl(next.character)) fitting += rest.substr(0, next.size);
    rest.remove_prefix(next.size);
  }
  return isDeviceName(fitting) ? fitting : "sorvane";
}

ApproverServer::Ports withFittingName(ApproverServer::Ports ports) {
  ports.macName = fittingName(ports.macName);
  return ports;
}

}  // namespace

/// The threads' side of the server: who may ask what of the one thread that does everything.
class ApproverServer::Impl {
 public:
  explicit Impl(Ports ports)
      : ports_(withFittingName(std::move(ports))),
        wake_(openWake()),
        questions_(ports_.clock, ports_.macName, [this] { wake(); }),
        view_(ports_.clock) {}
  ~Impl() { close(); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void open();
  void close();
  PairingOffer beginPairing() {
    return onThread<PairingOffer>([](LinkService& service) { return service.beginPairing(); });
  }
  void cancelPairing() {
    onThread<bool>([](LinkService& service) { return service.cancelPairing(), true; });
  }
  void revoke(std::string_view phone) {
    onThread<bool>([&phone](LinkService& service) { return service.revoke(phone), true; });
  }
  bool isRunning() const {
    const base::Lock lock(mutex_);
    return isRunning_;
  }

  Questions& questions() { return questions_; }
  const LinkView& view() const { return view_; }

 private:
  /// Work for the thread; it is called with null when there is nobody to do it any more.
  using Work = std::function<void(LinkService*)>;

  static base::Pipe openWake();
  LinkRecord loadRecord();
  void run(LinkService& service);
  void wake();
  std::deque<Work> takeWork(bool isLast);

  /// Has the thread do it, and waits for the outcome.
  template <typename Result>
  Result onThread(const std::function<Result(LinkService&)>& task);

  // Constant after construction.
  const Ports ports_;
  const base::Pipe wake_;
  // Own synchronisation.
  Questions questions_;
  LinkView view_;
  // Held across the whole of `open` and `close`, so that they follow each other; the thread never takes it.
  base::Mutex lifecycle_;
  std::unique_ptr<LinkService> service_ GUARDED_BY(lifecycle_);  ///< used by the thread alone while it runs
  std::thread thread_ GUARDED_BY(lifecycle_);
  // Guarded. A leaf.
  mutable base::Mutex mutex_;
  bool isRunning_ GUARDED_BY(mutex_) = false;
  bool isEnding_ GUARDED_BY(mutex_) = false;
  std::string whyClosed_ GUARDED_BY(mutex_) = kClosed;
  std::deque<Work> work_ GUARDED_BY(mutex_);
};

base::Pipe ApproverServer::Impl::openWake() {
  auto pipe = base::openPipe();
  if (!pipe) throw PhoneError("The link to phones could not be prepared. Nothing was shared. Start sorvane again.");
  ::fcntl(pipe->read.get(), F_SETFL, O_NONBLOCK);
  ::fcntl(pipe->write.get(), F_SETFL, O_NONBLOCK);
  return std::move(*pipe);
}

void ApproverServer::Impl::wake() {
  // Full means that a wake is waiting already.
  [[maybe_unused]] const auto written = ::write(wake_.write.get(), "", 1);
}

LinkRecord ApproverServer::Impl::loadRecord() {
  const auto text = ports_.registry.load();
  return text ? decodeLinkRecord(text->view()) : LinkRecord{crypto::AgreementKey::random(), 0, {}};
}

void ApproverServer::Impl::open() {
  const base::Lock lifecycle(lifecycle_);
  if (service_) return;
  try {
    service_ =
        std::make_unique<LinkService>(LinkService::Ports{ports_, questions_, view_, wake_.read.get()}, loadRecord());
  } catch (const base::Error& error) {
    base::diagnose("phone", error.sentence());
    const base::Lock lock(mutex_);
    whyClosed_ = error.sentence();
    return;
  }
  {
    const base::Lock lock(mutex_);
    isRunning_ = true;
    isEnding_ = false;
  }
  sigset_t all, earlier;
  sigfillset(&all);
  // Signals are for the threads that wait for them.
  ::pthread_sigmask(SIG_SETMASK, &all, &earlier);
  try {
    thread_ = std::thread([this, &service = *service_] { run(service); });
  } catch (const std::system_error&) {
    for (const auto& work : takeWork(true)) work(nullptr);
    service_.reset();
    base::diagnose("phone", "no thread could be begun, so no phone is served");
  }
  ::pthread_sigmask(SIG_SETMASK, &earlier, nullptr);
}

void ApproverServer::Impl::close() {
  const base::Lock lifecycle(lifecycle_);
  {
    const base::Lock lock(mutex_);
    whyClosed_ = kClosed;
    isEnding_ = true;
  }
  if (!service_) return;
  wake();
  thread_.join();
  service_.reset();
  questions_.setPhones({});
}

std::deque<ApproverServer::Impl::Work> ApproverServer::Impl::takeWork(bool isLast) {
  const base::Lock lock(mutex_);
  if (isLast) isRunning_ = false;
  return std::exchange(work_, {});
}

void ApproverServer::Impl::run(LinkService& service) {
  const auto isEnding = [this] {
    const base::Lock lock(mutex_);
    return isEnding_;
  };
  const auto guarded = [](const auto& work) {
    try {
      work();
    } catch (const std::exception& error) {
      // Memory or a primitive failed; the next round may do better.
      base::diagnose("phone", error.what());
    }
  };
  guarded([&service] { service.begin(); });
  while (!isEnding()) {
    for (const auto& work : takeWork(false)) work(&service);
    guarded([&service] { service.turn(); });
  }
  for (const auto& work : takeWork(true)) work(nullptr);
}

template <typename Result>
Result ApproverServer::Impl::onThread(const std::function<Result(LinkService&)>& task) {
  // A refusal crosses as a value and is thrown over here, so that no two threads share an exception.
  using Outcome = std::variant<Result, PhoneError>;
  std::promise<Outcome> promise;
  auto outcome = promise.get_future();
  {
    const base::Lock lock(mutex_);
    if (!isRunning_) throw PhoneError(whyClosed_);
    work_.push_back([&](LinkService* service) {
      try {
        promise.set_value(service == nullptr ? Outcome(PhoneError(kClosed)) : Outcome(task(*service)));
      } catch (const base::Error& error) {
        promise.set_value(PhoneError(error.sentence()));
      } catch (...) {
        promise.set_exception(std::current_exception());
      }
    });
  }
  wake();
  Outcome told = outcome.get();
  if (const auto* const refusal = std::get_if<PhoneError>(&told)) throw PhoneError(*refusal);
  return std::get<Result>(std::move(told));
}

ApproverServer::ApproverServer(Ports ports) : impl_(std::make_unique<Impl>(std::move(ports))) {}

ApproverServer::~ApproverServer() = default;

void ApproverServer::open() {
  impl_->open();
}

void ApproverServer::close() {
  impl_->close();
}

ApproverServer::PairingOffer ApproverServer::beginPairing() {
  return impl_->beginPairing();
}

ApproverServer::PairingReport ApproverServer::pairing() const {
  const base::Lock lock(impl_->view().mutex);
  return impl_->view().pairing.report();
}

void ApproverServer::cancelPairing() {
  if (impl_->isRunning()) impl_->cancelPairing();
}

std::vector<ApproverServer::Phone> ApproverServer::phones() const {
  const base::Lock lock(impl_->view().mutex);
  return impl_->view().phones;
}

void ApproverServer::revoke(std::string_view phone) {
  impl_->revoke(phone);
}

bool ApproverServer::isServed() const {
  const base::Lock lock(impl_->view().mutex);
  return impl_->view().isListening && !impl_->view().phones.empty();
}

ApproverServer::Answer ApproverServer::ask(const ApprovalDetails& details, const std::stop_token& withdrawn, Yes yes) {
  return impl_->questions().ask(details, withdrawn, yes);
}

}  // namespace sorvane::phone
