#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <thread>

#include "base/unicode.h"
#include "cli/commands.h"
#include "cli/interrupt.h"
#include "cli/output.h"
#include "cli/qr_output.h"

namespace sorvane::cli {
namespace {

constexpr std::chrono::milliseconds kPollPairing{500};

struct PairGiven {
  bool noQr = false;
};

/// Columns of the terminal on standard output; 0: nobody knows.
std::size_t columns() {
  winsize size{};
  return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

void showQr(const base::Json& rows) {
  const std::size_t width = rows.size() + 2 * kQuietModules, there = columns();
  if (there == 0 || width <= there) return print(qrText(rows));
  note("The QR code needs a terminal of " + std::to_string(width) + " columns, and this one has " +
       std::to_string(there) + ". The link below holds the same.");
}

void showOffer(const base::Json& offer, bool withQr) {
  if (withQr) showQr(items(offer, "qr"));
  printLine("Link:  " + base::escapedForDisplay(cell(offer, "link")));
  printLine("Code:  " + base::escapedForDisplay(cell(offer, "code")));
  printLine("On the phone, scan the QR code, or give the link to sorvane-approver pair. Both hold the code.");
  for (const char* why : {"notReachable", "notAnnounced"}) {
    if (offer.contains(why)) note(cell(offer, why));
  }
}

/// One line that is drawn over itself; none where nobody looks.
void showTimeLeft(const base::Json& pairing) {
  if (::isatty(STDERR_FILENO) == 0) return;
  const auto left = pairing.value("secondsLeft", 0LL);
  const auto attempts = pairing.value("attemptsLeft", 0LL);
  std::fprintf(stderr, "\rWaiting for the phone: %lld seconds and %lld attempts left (Ctrl-C cancels) \033[K",
               static_cast<long long>(left), static_cast<long long>(attempts));
}

void endLine() {
  if (::isatty(STDERR_FILENO) != 0) std::fputs("\r\033[K", stderr);
}

Failure endedWithout(const std::string& state) {
  if (state == "expired") {
    return {kFailed, "expired", "Two minutes are over and no phone came. No phone was paired. Try again."};
  }
  if (state == "tooManyAttempts") {
    return {kFailed, "too_many_attempts",
            "The code was wrong five times, so it is void. No phone was paired. If that was not you, somebody in your "
            "network tried; otherwise try again."};
  }
  return {kFailed, "cancelled", "Pairing was cancelled. No phone was paired."};
}

/// Waits until a phone is paired; throws Failure when it ends without one.
base::Json waitForPhone(Session& session) {
  const NoteInterrupt interrupt;
  for (;;) {
    if (wasInterrupted()) session.manage("phonePairCancel", {}, Session::Asks::no);
    base::Json pairing = session.read("phonePairing");
    const std::string state = pairing.value("state", "");
    if (state == "open") {
      showTimeLeft(pairing);
      std::this_thread::sleep_for(kPollPairing);
      continue;
    }
    endLine();
    if (state == "paired") return pairing;
    throw endedWithout(state);
  }
}

int pair(Session& session, const PairGiven& given) {
  const auto response = session.manage("phonePair", {}, Session::Asks::yes);
  const auto offer = response.document ? base::parseJson(response.document->view()) : std::nullopt;
  if (!offer || !offer->is_object()) throw notUnderstood();
  const bool json = session.options().json;
  // One document for who may read on before the phone comes, and one for how it ended.
  json ? printJson(*offer) : showOffer(*offer, !given.noQr && ::isatty(STDOUT_FILENO) != 0);
  const base::Json pairing = waitForPhone(session);
  if (json) return printJson(pairing), 0;
  note("Paired: " + cell(pairing, "name") +
       ". It can answer from now on. Try it with sorvane phone test; who else may answer is set with sorvane policy "
       "approver.");
  return 0;
}

int list(Session& session) {
  const base::Json document = session.read("phoneList");
  if (session.options().json) return printJson(document), 0;
  const base::Json& phones = items(document, "phones");
  if (phones.empty()) {
    note("No phone is paired. Pair one: sorvane phone pair");
    return 0;
  }
  std::vector<std::vector<std::string>> rows;
  for (const base::Json& phone : phones) {
    rows.push_back({cell(phone, "name"), phone.value("connected", false) ? "connected" : "away",
                    phone.value("hardwarePresenceKey", false) ? "in its hardware, it says" : "in software",
                    cell(phone, "pairedAt"), cell(phone, "id")});
  }
  printTable({"NAME", "STATE", "KEY", "PAIRED", "ID"}, rows);
  return 0;
}

int revoke(Session& session, const Given& given) {
  const auto response = session.manage("phoneRevoke", given.arguments, Session::Asks::yes);
  const std::string name(valueOf(response).view());
  session.options().json ? printJson({{"ok", true}, {"value", name}})
                         : note("The link to '" + name + "' is ended. It can answer nothing any more.");
  return 0;
}

int test(Session& session) {
  if (!session.options().json && ::isatty(STDERR_FILENO) != 0) {
    note("A test question is on its way to the phone. Answer it there (Ctrl-C withdraws it) …");
  }
  const base::Json document = session.read("phoneTest");
  const std::string answer = cell(document, "answer");
  if (answer == "none") {
    throw Failure(kFailed, "no_answer",
                  "No phone answered. Nothing was shared. Look whether the phone is in the same network and "
                  "sorvane-approver runs on it.");
  }
  if (session.options().json) return printJson(document), 0;
  note("'" + cell(document, "phone") + "' said " + answer + " after " +
       std::to_string(document.value("milliseconds", 0LL)) + " ms. The link works.");
  return 0;
}

}  // namespace

void Commands::addPhone(CLI::App& app) {
  CLI::App& group = *app.add_subcommand("phone", "Answer from a second device: pair, list, revoke, test");
  group.require_subcommand(1, 1);
  {
    const auto given = std::make_shared<PairGiven>();
    CLI::App& command = *group.add_subcommand("pair", "Pair a phone: shows a QR code and waits (asks)");
    command.add_flag("--no-qr", given->noQr, "Show the link and the code as text only");
    command.callback([this, given] { action = [given](Session& session) { return pair(session, *given); }; });
  }
  group.add_subcommand("list", "The paired phones")->callback([this] { action = list; });
  {
    const auto given = std::make_shared<Given>();
    CLI::App& command = *group.add_subcommand("revoke", "End the link to a phone (asks)");
    given->text(command, "name", "phone", "Name or id of the phone")->required();
    command.callback([this, given] { action = [given](Session& session) { return revoke(session, *given); }; });
  }
  group.add_subcommand("test", "Put a test question to the phone")->callback([this] { action = test; });
}

}  // namespace sorvane::cli
