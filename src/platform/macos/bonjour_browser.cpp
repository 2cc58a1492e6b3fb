#include "platform/macos/bonjour_browser.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <list>

#include "platform/macos/bonjour_call.h"
#include "platform/macos/bonjour_text.h"

namespace sorvane::platform {
namespace {

using Found = approver::Browser::Found;

/// More services of our kind than any network has; what comes beyond is passed over.
constexpr std::size_t kMostServices = 64;
constexpr std::chrono::milliseconds kLookAgain{200};

/// The address in a resource record of an interface, as text; an address of one link alone says nothing without the
/// link, and is left out where that has gone. Empty for other records.
std::string addressText(std::uint16_t type, std::string_view data, std::uint32_t interface) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  const bool isIpv6 = type == kDNSServiceType_AAAA;
  if (!isIpv6 && type != kDNSServiceType_A) return {};
  if (data.size() != (isIpv6 ? sizeof(in6_addr) : sizeof(in_addr))) return {};
  if (::inet_ntop(isIpv6 ? AF_INET6 : AF_INET, data.data(), text.data(), text.size()) == nullptr) return {};
  const std::string address = text.data();
  std::array<char, IF_NAMESIZE> name{};
  if (!address.starts_with("fe80:")) return address;
  return ::if_indextoname(interface, name.data()) == nullptr ? std::string() : address + "%" + name.data();
}

/// Search is what the daemon was asked and what it has told. An answer leads to the next question: a service to where
/// it is, and that, for the computer looked for, to the addresses of its name.
class Search {
 public:
  explicit Search(std::string_view id) : id_(id) {}
  Search(const Search&) = delete;
  Search& operator=(const Search&) = delete;

  /// Whether the daemon listens.
  bool begin() {
    return ask(0, [](Question& question, DNSServiceRef* place) {
      return ::DNSServiceBrowse(place, 0, kDNSServiceInterfaceIndexAny, kBonjourType, nullptr, &Search::browsed,
                                &question);
    });
  }

  /// The last: nothing more will be told.
  enum class Heard { nothing, something, last };
  Heard listen(std::chrono::milliseconds limit) {
    std::vector<pollfd> ends;
    for (const Question& question : questions_) ends.push_back({question.call.descriptor(), POLLIN, 0});
    const auto count = static_cast<nfds_t>(ends.size());
    if (::poll(ends.data(), count, static_cast<int>(limit.count())) <= 0) return Heard::nothing;
    // What an answer leads to is asked behind these.
    auto question = questions_.begin();
    for (const pollfd& end : ends) {
      const bool isAnswered = end.revents != 0;
      if (isAnswered && question->call.process() != kDNSServiceErr_NoError) return Heard::last;
      question = question->isDone ? questions_.erase(question) : std::next(question);
    }
    return isOver_ ? Heard::last : Heard::something;
  }

  std::vector<Found> takeFound() { return std::move(found_); }
  bool hasFound() const { return !found_.empty(); }

 private:
  /// Question is one thing asked. A reply gets it as its context.
  struct Question {
    Question(Search& asking, std::uint16_t servicePort) : search(asking), port(servicePort) {}
    Search& search;
    const std::uint16_t port;  ///< of the service whose addresses are asked for
    bool isDone = false;
    BonjourCall call;
  };

  template <typename Begin>
  bool ask(std::uint16_t port, const Begin& begin) {
    Question& question = questions_.emplace_back(*this, port);
    const auto error = question.call.begin([&](DNSServiceRef* place) { return begin(question, place); });
    if (error == kDNSServiceErr_NoError) return true;
    questions_.pop_back();
    return false;
  }

  static void DNSSD_API browsed(DNSServiceRef, DNSServiceFlags flags, std::uint32_t interface,
                                DNSServiceErrorType error, const char* name, const char* type, const char* domain,
                                void* context) {
    Search& self = static_cast<Question*>(context)->search;
    if (error != kDNSServiceErr_NoError) self.isOver_ = true;
    const bool isThere = error == kDNSServiceErr_NoError && (flags & kDNSServiceFlagsAdd) != 0;
    if (!isThere || self.services_++ >= kMostServices) return;
    self.ask(0, [&](Question& question, DNSServiceRef* place) {
      return ::DNSServiceResolve(place, 0, interface, name, type, domain, &Search::resolved, &question);
    });
  }

  static void DNSSD_API resolved(DNSServiceRef, DNSServiceFlags, std::uint32_t interface, DNSServiceErrorType error,
                                 const char*, const char* host, std::uint16_t port, std::uint16_t size,
                                 const unsigned char* text, void* context) {
    auto& answered = *static_cast<Question*>(context);
    answered.isDone = true;
    if (error != kDNSServiceErr_NoError || port == 0) return;
    Search& self = answered.search;
    if (!bonjourTextHas({reinterpret_cast<const char*>(text), size}, "id", self.id_)) return;
    for (const std::uint16_t type : {kDNSServiceType_A, kDNSServiceType_AAAA}) {
      self.ask(ntohs(port), [&](Question& question, DNSServiceRef* place) {
        return ::DNSServiceQueryRecord(place, 0, interface, host, type, kDNSServiceClass_IN, &Search::addressed,
                                       &question);
      });
    }
  }

  static void DNSSD_API addressed(DNSServiceRef, DNSServiceFlags flags, std::uint32_t interface,
                                  DNSServiceErrorType error, const char*, std::uint16_t type, std::uint16_t,
                                  std::uint16_t size, const void* data, std::uint32_t, void* context) {
    // A name without addresses of one family is told as an error.
    if (error != kDNSServiceErr_NoError || (flags & kDNSServiceFlagsAdd) == 0) return;
    const auto& question = *static_cast<const Question*>(context);
    question.search.add({addressText(type, {static_cast<const char*>(data), size}, interface), question.port});
  }

  /// The same address may be told for each interface.
  void add(Found place) {
    const bool isKnown = std::any_of(found_.begin(), found_.end(), [&](const Found& each) {
      return each.host == place.host && each.port == place.port;
    });
    if (!place.host.empty() && !isKnown && found_.size() < kMostServices) found_.push_back(std::move(place));
  }

  const std::string id_;
  std::list<Question> questions_;
  std::vector<Found> found_;
  std::size_t services_ = 0;
  bool isOver_ = false;
};

}  // namespace

std::vector<Found> BonjourBrowser::find(std::string_view id, std::chrono::milliseconds limit,
                                        const std::function<bool()>& isStopped) {
  using std::chrono::milliseconds;
  using std::chrono::steady_clock;
  const auto end = steady_clock::now() + limit;
  Search search(id);
  if (!search.begin()) return {};
  for (auto now = steady_clock::now(); now < end && !isStopped(); now = steady_clock::now()) {
    const auto heard = search.listen(std::min(kLookAgain, std::chrono::ceil<milliseconds>(end - now)));
    // Once it is found in one way, the others have had their time.
    if (heard == Search::Heard::last || (heard == Search::Heard::nothing && search.hasFound())) break;
  }
  return search.takeFound();
}

}  // namespace sorvane::platform
