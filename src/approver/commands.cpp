#include "approver/commands.h"

#include <unistd.h>

#include <array>
#include <iostream>

#include "approver/key_file.h"
#include "approver/passphrase.h"
#include "approver/waiter.h"
#include "base/unicode.h"

namespace sorvane::approver {
namespace {

constexpr int kMostTries = 3;
constexpr std::size_t kMostNameCharacters = 64;

/// What every command that talks has.
struct Desk {
  explicit Desk(const Options& options) : file(files, options.keys) {
    if (options.address) address = readPlace(*options.address);
  }

  base::SystemFiles files;
  base::SystemClock clock;
  KeyFile file;
  SeenRequests seen;
  std::optional<Place> address;
  StopSignals signals;
  Terminal terminal{signals};

  Talk::Ports ports() { return {terminal, signals, clock}; }
};

std::size_t codePoints(std::string_view text) {
  std::size_t count = 0;
  for (; !text.empty(); ++count) text.remove_prefix(base::decodeUtf8(text).size);
  return count;
}

bool isDeviceName(std::string_view name) {
  if (name.empty() || !base::isUtf8(name) || codePoints(name) > kMostNameCharacters) return false;
  for (; !name.empty(); name.remove_prefix(base::decodeUtf8(name).size))
    if (base::isControl(base::decodeUtf8(name).character)) return false;
  return true;
}

std::string hostName() {
  std::array<char, 256> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0) return "phone";
  std::string text(name.data());
  text = text.substr(0, text.find('.')).substr(0, kMostNameCharacters);
  return isDeviceName(text) ? text : "phone";
}

std::string deviceNameOf(const Options& options) {
  std::string name = options.deviceName.empty() ? hostName() : std::string(base::trimmed(options.deviceName));
  if (!isDeviceName(name))
    throw PlaceError("A device's name has 1 to 64 characters and no control characters. Give another with --name.");
  return name;
}

PairLink linkOf(const Options& options, Terminal& terminal) {
  if (options.link != "-") return readPairLink(options.link);
  std::string text;
  if (::isatty(STDIN_FILENO) != 0)
    text = terminal.line("Pairing link: ").value_or("");
  else
    std::getline(std::cin, text);
  PairLink link = readPairLink(text);
  base::wipe(text);
  return link;
}

OpenPairing openKeys(Desk& desk, const Options& options) {
  if (!desk.file.facts()) {
    throw KeyFileError(
        KeyFileError::Case::unreadable,
        "This device is paired with no computer. Run sorvane phone pair there, and sorvane-approver pair "
        "with the link that it shows here.");
  }
  const PassphraseSource source{desk.terminal, options.passphraseFd};
  for (int tries = 1;; ++tries) {
    const base::SecretText passphrase = askPassphrase(source);
    try {
      if (auto pairing = desk.file.open(passphrase.view())) return std::move(*pairing);
    } catch (const KeyFileError& error) {
      const bool isTyped = error.kind() == KeyFileError::Case::wrongPassphrase && !options.passphraseFd;
      if (!isTyped || tries == kMostTries) throw;
      desk.terminal.show(error.sentence() + "\n");
    }
  }
}

int finish(Waiter::End end, Desk& desk, const std::string& macName) {
  const std::string name = base::escapedForDisplay(macName);
  switch (end) {
    case Waiter::End::unpaired:
      desk.file.remove();
      desk.terminal.show(name +
                         " ended the pairing, so this device's keys for it were removed. Nothing more can be "
                         "answered here until you pair again.\n");
      return 0;
    case Waiter::End::terminalGone:
      desk.terminal.show("\nStopped. Nothing more is answered.\n");
      return 0;
  }
  return kFailed;
}

/// One try of pairing: a link over each place until one is the computer's.
class PairingTry {
 public:
  PairingTry(Desk& desk, const PairLink& link, OpenPairing& pairing) : desk_(desk), offer_(link), pairing_(pairing) {}

  bool at(const Place& place) {
    auto connection = Connection::open(place, Waiter::kConnectTime, desk_.signals);
    if (!connection) return false;
    link_ =
        std::make_unique<Link>(Link::Ends{pairing_.keys, pairing_.computer},
                               Link::Pairing{offer_.code.view(), pairing_.facts.deviceName}, desk_.seen, desk_.clock);
    talk_ = std::make_unique<Talk>(desk_.ports(), std::move(*connection), *link_, [&](const std::string& macName) {
      pairing_.facts.macName = macName;
      pairing_.facts.places = {place};
      pairing_.facts.pairedAt = desk_.clock.now();
    });
    const auto end = talk_->open();
    if (!end) return true;
    // What an address further on says may be better, and nothing proves who refused here; what came last is said.
    end_ = end;
    return *end == Talk::End::terminalGone;
  }
  bool isPaired() const { return link_ && link_->isOpen(); }
  std::optional<Talk::End> end() const { return end_; }
  Talk& talk() { return *talk_; }

 private:
  Desk& desk_;
  const PairLink& offer_;
  OpenPairing& pairing_;
  std::unique_ptr<Link> link_;
  std::unique_ptr<Talk> talk_;
  std::optional<Talk::End> end_;
};

int sayNotPaired(Terminal& terminal, const std::optional<Talk::End>& end) {
  if (!end) {
    terminal.show(
        "The computer could not be reached at any address of the link. Nothing was paired. Check that both are in "
        "one network, or give the address with --address HOST:PORT.\n");
    return kNotReached;
  }
  if (*end == Talk::End::refused) {
    terminal.show(
        "The computer did not take the code. Nothing was paired. Run sorvane phone pair again there, and use "
        "the new link.\n");
    return kDenied;
  }
  if (*end == Talk::End::wrongComputer) {
    terminal.show(
        "Another computer answered than the one in the link. Nothing was paired. Run sorvane phone pair again, "
        "in a network that you trust, or give the address with --address HOST:PORT.\n");
    return kDenied;
  }
  terminal.show(
      "The link ended before the computer had answered; perhaps its time for pairing was over. Nothing was "
      "paired. Run sorvane phone pair again there, and use the new link.\n");
  return kFailed;
}

}  // namespace

int pairDevice(const Options& options, Browser* browser) {
  Desk desk(options);
  if (const auto facts = desk.file.facts()) {
    throw KeyFileError(
        KeyFileError::Case::notWritten,
        "This device is paired with " + base::escapedForDisplay(facts->macName) +
            " already. Nothing was paired. Run sorvane-approver forget first, or keep the keys of the other "
            "computer in another file with --keys.");
  }
  const std::string deviceName = deviceNameOf(options);
  const PairLink offer = linkOf(options, desk.terminal);
  const base::SecretText passphrase = askNewPassphrase({desk.terminal, options.passphraseFd});
  OpenPairing pairing{{{}, deviceName, computerIdOf(offer.computer), {}, {}},
                      offer.computer,
                      {crypto::AgreementKey::random(), crypto::PresenceKey::random()},
                      newSealingKey(passphrase.view())};
  if (!Channel::between(pairing.keys.agreement, offer.computer)) readPairLink("");  // a key that no computer has

  const Finder finder(desk.address, browser, desk.signals);
  PairingTry attempt(desk, offer, pairing);
  finder.find(offer.places, pairing.facts.computerId, [&attempt](const Place& place) { return attempt.at(place); });
  if (!attempt.isPaired()) return sayNotPaired(desk.terminal, attempt.end());
  try {
    desk.file.save(pairing);
  } catch (const KeyFileError&) {
    attempt.talk().unpair();
    throw;
  }
  desk.terminal.show("Paired with " + base::escapedForDisplay(pairing.facts.macName) + " as " +
                     base::escapedForDisplay(deviceName) + ".\n");
  if (options.once) return 0;
  desk.terminal.show("Questions of it are shown here from now on; Control-C ends this.\n");
  Waiter waiter(desk.ports(), finder, {desk.file, pairing, desk.seen});
  return finish(waiter.run(attempt.talk()), desk, pairing.facts.macName);
}

int waitForQuestions(const Options& options, Browser* browser) {
  Desk desk(options);
  OpenPairing pairing = openKeys(desk, options);
  const Finder finder(desk.address, browser, desk.signals);
  Waiter waiter(desk.ports(), finder, {desk.file, pairing, desk.seen});
  return finish(waiter.run(), desk, pairing.facts.macName);
}

int showStatus(const Options& options) {
  base::SystemFiles files;
  const KeyFile file(files, options.keys);
  const auto facts = file.facts();
  if (!facts) {
    std::cout << "This device is paired with no computer.\n";
    return 0;
  }
  std::cout << "Paired with:  " << base::escapedForDisplay(facts->macName) << "\n"
            << "As:           " << base::escapedForDisplay(facts->deviceName) << "\n"
            << "Since:        " << base::iso8601(facts->pairedAt) << "\n"
            << "Computer:     " << base::escapedForDisplay(facts->computerId) << "\n";
  for (const Place& place : facts->places)
    std::cout << "Last seen at: " << base::escapedForDisplay(textOf(place)) << "\n";
  return 0;
}

int forgetPairing(const Options& options, Browser* browser) {
  if (!options.tell) {
    base::SystemFiles files;
    KeyFile file(files, options.keys);
    file.remove();
    std::cout << "This device's keys were removed. If the computer still lists it, run sorvane phone revoke there.\n";
    return 0;
  }
  Desk desk(options);
  OpenPairing pairing = openKeys(desk, options);
  const Finder finder(desk.address, browser, desk.signals);
  Waiter waiter(desk.ports(), finder, {desk.file, pairing, desk.seen});
  const bool isTold = waiter.unpair();
  desk.file.remove();
  if (isTold) {
    desk.terminal.show("The computer was told, and this device's keys were removed.\n");
    return 0;
  }
  desk.terminal.show(
      "The computer could not be told. This device's keys were removed all the same; run sorvane phone "
      "revoke there.\n");
  return kNotReached;
}

}  // namespace sorvane::approver
