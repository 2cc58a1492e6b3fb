#include "platform/linux/avahi_browser.h"

#include <net/if.h>
#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <array>
#include <deque>
#include <memory>

#include "base/secret_text.h"
#include "platform/linux/bus_loop.h"

namespace sorvane::platform {
namespace {

using namespace std::chrono_literals;

constexpr char kService[] = "org.freedesktop.Avahi";
constexpr char kServer[] = "org.freedesktop.Avahi.Server";
constexpr char kBrowser[] = "org.freedesktop.Avahi.ServiceBrowser";
constexpr char kType[] = "_sorvane._tcp";
// Avahi's own numbers for any interface and either family of addresses.
constexpr std::int32_t kAnyInterface = -1, kAnyFamily = -1, kFamilyIpv6 = 1;
constexpr std::uint32_t kNoFlags = 0;
constexpr std::chrono::seconds kCallLimit{2};
/// More services of our kind than any network has; what comes beyond is passed over.
constexpr std::size_t kMostServices = 64;
constexpr std::chrono::milliseconds kLookAgain{200};

/// One service as the daemon names it.
struct Item {
  std::int32_t interface, family;
  std::string name, type, domain;
};

using Resolved =
    std::tuple<std::int32_t, std::int32_t, std::string, std::string, std::string, std::string, std::int32_t,
               std::string, std::uint16_t, std::vector<std::vector<std::uint8_t>>, std::uint32_t>;

/// Search is one browser of the daemon's and what it has told. Failures are sdbus::Error.
class Search {
 public:
  Search() : server_(sdbus::createProxy(loop_.connection(), kService, "/")) {}

  /// The daemon begins to tell at once, and this connection alone, so that what it tells waits until it is listened to.
  void begin() {
    sdbus::ObjectPath path;
    server_->callMethod("ServiceBrowserNew")
        .onInterface(kServer)
        .withTimeout(kCallLimit)
        .withArguments(kAnyInterface, kAnyFamily, std::string(kType), std::string(), kNoFlags)
        .storeResultsTo(path);
    browser_ = sdbus::createProxy(loop_.connection(), kService, path);
    browser_->uponSignal("ItemNew").onInterface(kBrowser).call([this](std::int32_t interface, std::int32_t family,
                                                                      const std::string& name, const std::string& type,
                                                                      const std::string& domain, std::uint32_t) {
      if (told_++ < kMostServices) items_.push_back({interface, family, name, type, domain});
    });
    browser_->finishRegistration();
  }

  void end() {
    if (browser_) browser_->callMethod("Free").onInterface(kBrowser).withTimeout(kCallLimit);
  }

  /// The next service; nullopt when `until` has passed first.
  std::optional<Item> next(std::chrono::steady_clock::time_point until) {
    loop_.run([this] { return !items_.empty(); }, until);
    if (items_.empty()) return std::nullopt;
    Item item = std::move(items_.front());
    items_.pop_front();
    return item;
  }

  /// Where the service is, when its text records hold `record`.
  std::optional<approver::Browser::Found> resolve(const Item& item, const std::string& record) try {
    Resolved at;
    auto& [interface, family, name, type, domain, host, addressFamily, address, port, records, flags] = at;
    server_->callMethod("ResolveService")
        .onInterface(kServer)
        .withTimeout(kCallLimit)
        .withArguments(item.interface, item.family, item.name, item.type, item.domain, item.family, kNoFlags)
        .storeResultsTo(interface, family, name, type, domain, host, addressFamily, address, port, records, flags);
    const bool isIt =
        std::any_of(records.begin(), records.end(), [&](const auto& each) { return base::textOf(each) == record; });
    if (!isIt || port == 0) return std::nullopt;
    return approver::Browser::Found{withScope(address, addressFamily, interface), port};
  } catch (const sdbus::Error&) {
    return std::nullopt;  // gone again meanwhile
  }

 private:
  /// An address of one link alone says nothing without the link.
  static std::string withScope(const std::string& address, std::int32_t family, std::int32_t interface) {
    std::array<char, IF_NAMESIZE> name{};
    const bool needsScope = family == kFamilyIpv6 && address.starts_with("fe80:");
    if (!needsScope || ::if_indextoname(static_cast<unsigned>(interface), name.data()) == nullptr) return address;
    return address + "%" + name.data();
  }

  BusLoop loop_;
  const std::unique_ptr<sdbus::IProxy> server_;
  std::unique_ptr<sdbus::IProxy> browser_;
  std::deque<Item> items_;
  std::size_t told_ = 0;
};

}  // namespace

std::vector<approver::Browser::Found> AvahiBrowser::find(std::string_view id, std::chrono::milliseconds limit,
                                                         const std::function<bool()>& isStopped) {
  std::vector<Found> found;
  try {
    const auto end = std::chrono::steady_clock::now() + limit;
    const std::string record = "id=" + std::string(id);
    Search search;
    search.begin();
    for (auto now = std::chrono::steady_clock::now(); now < end && !isStopped();
         now = std::chrono::steady_clock::now()) {
      const auto item = search.next(std::min(end, now + kLookAgain));
      // Once it is found in one way, the others have had their time.
      if (!item && !found.empty()) break;
      const auto place = item ? search.resolve(*item, record) : std::nullopt;
      if (place) found.push_back(*place);
    }
    search.end();
  } catch (const sdbus::Error&) {
    // No bus or no daemon: what was found before counts.
  }
  return found;
}

}  // namespace sorvane::platform
