// The ledger of calls: what it notices when its file is changed behind its back, and what is left of it when a step of
// the writing fails or is the last one.
#include "proxy/ledger.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "base/codec.h"
#include "base/json.h"
#include "proxy/ledger_totals.h"
#include "support/doubles.h"

namespace sorvane::proxy {
namespace {

using namespace std::chrono_literals;
using test::ManualClock;

/// Fails the step with that number, and later ones when it stays; files and settings count together. `after`: the step
/// takes effect and fails then.
struct Fault {
  int failAt = -1, steps = 0;
  bool stays = false, after = false;
  enum class Effect { may, none };
  template <typename Step>
  void run(const Step& step, Effect effect = Effect::may) {
    const int number = steps++;
    const bool hit = failAt >= 0 && (number == failAt || (stays && number > failAt));
    if (!hit || (after && effect == Effect::may && number == failAt)) step();
    if (hit) throw base::FileError("the disk is full", ENOSPC);
  }
};

class FaultyFiles final : public base::Files {
 public:
  explicit FaultyFiles(Fault& fault) : fault_(fault) {}
  std::optional<Contents> read(const std::filesystem::path& path, std::uint64_t limit) const override {
    return real_.read(path, limit);
  }
  std::optional<base::FileIdentity> identity(const std::filesystem::path& path) const override {
    return real_.identity(path);
  }
  base::FileIdentity writeAtomically(const std::filesystem::path& path, std::span<const std::uint8_t> bytes) override {
    fault_.run([&] { real_.writeAtomically(path, bytes); });
    return {};
  }
  void append(const std::filesystem::path& path, std::span<const std::uint8_t> bytes) override {
    ++appends;
    // As promised of an append that fails, nothing of it is left.
    fault_.run([&] { real_.append(path, bytes); }, Fault::Effect::none);
  }
  void remove(const std::filesystem::path& path) override { real_.remove(path); }
  void rename(const std::filesystem::path& from, const std::filesystem::path& to) override { real_.rename(from, to); }
  void makeFolder(const std::filesystem::path& path) override { real_.makeFolder(path); }
  std::vector<std::string> list(const std::filesystem::path& path) const override { return real_.list(path); }
  int appends = 0;

 private:
  base::SystemFiles real_;
  Fault& fault_;
};

/// The seal's place. Locked, it does what a store does that waits for its owner and is told no.
class Settings final : public vault::SealedSettings {
 public:
  explicit Settings(Fault& fault) : fault_(fault) {}
  std::optional<base::SecretText> load(std::string_view) override {
    refuseWhenLocked();
    return seal ? std::optional(base::SecretText(*seal)) : std::nullopt;
  }
  void save(std::string_view name, std::string_view record) override {
    EXPECT_EQ(name, "proxy-ledger-head");
    EXPECT_LE(record.size(), kMaxSettingBytes);
    refuseWhenLocked();
    try {
      fault_.run([&] { seal = record; });
    } catch (const base::FileError&) {
      throw vault::SettingError(vault::SettingError::Case::storage, "A sealed setting could not be saved.");
    }
    ++saves;
  }
  void remove(std::string_view) override { seal.reset(); }
  std::optional<std::string> seal;
  bool locked = false;
  int saves = 0;

 private:
  void refuseWhenLocked() const {
    if (locked) throw vault::SettingError(vault::SettingError::Case::storage, "The keyring is locked.");
  }
  Fault& fault_;
};

class Ledger : public ::testing::Test {
 protected:
  ProxyCallRecord call(std::int64_t number) const {
    ProxyCallRecord record;
    record.requestId = "req_" + std::to_string(number);
    record.at = clock_.now();
    record.grant = "abcdefghijklmnop";
    record.environment = "proj_1";
    record.client = "Agent";
    record.model = "made-up-model";
    record.status = 200;
    record.usage.inputTokens = 10;
    record.usage.outputTokens = 5;
    record.chargedMicros = number;
    return record;
  }
  LedgerWriter writer() { return {path_, {files_, settings_, clock_}}; }
  void add(LedgerWriter& writer, std::int64_t first, std::int64_t last) {
    std::vector<std::string> lines;
    for (std::int64_t i = first; i <= last; ++i) lines.push_back(encodeCall(call(i)));
    writer.write(std::move(lines));
  }
  /// As many lines as said, sealed, by a program that has ended.
  void fill(std::int64_t lines) {
    LedgerWriter earlier = writer();
    add(earlier, 1, lines);
    earlier.renew(LedgerWriter::When::now);
  }
  std::vector<std::string> lines() const {
    std::vector<std::string> lines;
    eachLine(openLedger(path_), [&](std::string_view line) { lines.emplace_back(line); });
    return lines;
  }
  void put(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text.append(line).push_back('\n');
    base::SystemFiles().writeAtomically(path_, base::bytesOf(text));
  }
  /// What the next program says about the file.
  std::vector<std::string> said() {
    CallLedger ledger(path_, {files_, settings_, clock_});
    return ledger.read([](std::string_view) {}).notices;
  }

  test::TemporaryFolder folder_;
  const std::filesystem::path path_ = folder_.path() / kLedgerName;
  ManualClock clock_;
  Fault fault_;
  FaultyFiles files_{fault_};
  Settings settings_{fault_};
};

TEST_F(Ledger, keepsARecordWithItsKeysInOrderAndReadsItBack) {
  ProxyCallRecord record = call(7);
  record.taskSessionId = "session";
  record.operation = ProxyOperation::chatCompletions;
  record.outcome = CallOutcome::clientAborted;
  record.usage.cacheWrite1hTokens = 3;
  record.usage.reportedMicros = 12;
  record.client = "quote \" and \n line feed \xff";
  const std::string line = encodeCall(record);
  std::size_t at = 0;
  for (const std::string key : {"requestId", "at", "grant", "taskSessionId", "environment", "client", "provider",
                                "model", "operation", "streamed", "outcome", "status", "latencyMs", "usage",
                                "reservedMicros", "chargedMicros", "priceSource", "priceVersion", "discrepancy"}) {
    const std::size_t found = line.find("\"" + key + "\":");
    ASSERT_NE(found, std::string::npos) << key;
    EXPECT_GE(found, at) << key;
    at = found;
  }
  EXPECT_EQ(line.find('\n'), std::string::npos);
  const auto back = decodeCall(line);
  ASSERT_TRUE(back);
  EXPECT_EQ(encodeCall(*back), line);
  EXPECT_EQ(back->usage, record.usage);
  EXPECT_EQ(base::parseJson(line)->at("outcome"), "clientAborted");
  for (const std::string_view bad : {"", "{}", "[]", "null"}) EXPECT_FALSE(decodeCall(bad));
  std::string lacking = line;
  lacking.replace(lacking.find("\"status\":200"), 12, "\"status\":\"200\"");
  EXPECT_FALSE(decodeCall(lacking));
}

TEST_F(Ledger, theHeadIsTheHashOfTheHeadBeforeAndTheLine) {
  LedgerSeal seal;
  seal.extend("a");
  seal.extend("b");
  // Reckoned by another program.
  EXPECT_EQ(base::hexLower(seal.head), "abccbe9b24d2bbd3aa1360d605147a841dd051130131c6929d6004e1ae4796e8");
  EXPECT_EQ(decodeSeal(encodeSeal(seal)), seal);
}

TEST_F(Ledger, aChangedLineIsNoticedAndNamed) {
  using Change = void (*)(std::vector<std::string>&);
  struct Row {
    const char* what;
    Change change;
    const char* said;
  };
  const Row rows[] = {
      {"altered", [](auto& l) { l[2].replace(l[2].find("\"chargedMicros\":3"), 17, "\"chargedMicros\":1"); },
       "line 3 was altered"},
      {"removed", [](auto& l) { l.erase(l.begin() + 4); }, "1 line is missing, beginning with line 5."},
      {"reordered", [](auto& l) { std::swap(l[6], l[7]); }, "line 7 was altered"},
      {"the last removed", [](auto& l) { l.pop_back(); }, "1 line is missing, beginning with line 10."},
      {"the first removed", [](auto& l) { l.erase(l.begin()); }, "1 line is missing, beginning with line 1."},
      {"all removed", [](auto& l) { l.clear(); }, "10 lines are missing"},
      {"one put in", [](auto& l) { l.insert(l.begin() + 1, l[0]); }, "line 2 was altered, added"},
  };
  for (const Row& row : rows) {
    settings_.seal.reset();
    std::filesystem::remove(path_);
    fill(10);
    ASSERT_EQ(said(), std::vector<std::string>{}) << row.what;
    std::vector<std::string> changed = lines();
    row.change(changed);
    put(changed);
    {
      CallLedger looking(path_, {files_, settings_, clock_});
      looking.look();
      looking.flush();
      EXPECT_EQ(looking.notices().size(), 1u) << row.what << ", without reading it";
    }
    for (int start = 1; start <= 2; ++start) {
      const auto notices = said();
      ASSERT_EQ(notices.size(), 1u) << row.what << ", start " << start;
      EXPECT_NE(notices[0].find(row.said), std::string::npos) << row.what << ": " << notices[0];
    }
  }
}

TEST_F(Ledger, amongManyLinesTheChangedOneIsToldWithinABoundedRange) {
  fill(3000);
  auto changed = lines();
  changed[1999].back() = ' ';
  put(changed);
  const auto notices = said();
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_NE(notices[0].find("among lines 1993 to 2000 "), std::string::npos) << notices[0];
}

TEST_F(Ledger, aChangeWhileItRunsIsToldWhenItIsRead) {
  CallLedger ledger(path_, {files_, settings_, clock_});
  for (int i = 1; i <= 5; ++i) ledger.record(call(i));
  ledger.flush();
  auto changed = lines();
  ASSERT_EQ(changed.size(), 5u);
  changed[1][2] = 'X';
  put(changed);
  const auto notices = ledger.read([](std::string_view) {}).notices;
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_NE(notices[0].find("line 2 was altered"), std::string::npos) << notices[0];
}

TEST_F(Ledger, linesBehindTheSealCountAndATornOneIsDropped) {
  fill(3);
  {
    LedgerWriter crashed = writer();
    add(crashed, 4, 6);  // not sealed any more
  }
  std::ofstream(path_, std::ios::app) << R"({"requestId":"req_7","at)";
  EXPECT_EQ(said(), std::vector<std::string>{});
  EXPECT_EQ(lines().size(), 6u);
  auto changed = lines();
  changed[4][2] = 'X';
  put(changed);
  EXPECT_EQ(said().size(), 1u) << "they are sealed by now";
}

TEST_F(Ledger, aSealThatIsGoneIsSaid) {
  fill(4);
  settings_.seal.reset();
  ASSERT_EQ(said().size(), 1u);
  EXPECT_NE(said()[0].find("The seal of the proxy’s call ledger is gone, so nothing vouches for lines 1 to 4."),
            std::string::npos);
}

TEST_F(Ledger, aVaultThatDoesNotOpenKeepsNothingFromBeingRecorded) {
  fill(2);
  settings_.locked = true;
  LedgerWriter later = writer();
  add(later, 3, 4);
  later.renew(LedgerWriter::When::now);
  EXPECT_EQ(lines().size(), 4u);
  const auto sentences = sentencesOf(later.trouble());
  ASSERT_EQ(sentences.size(), 1u);
  EXPECT_NE(sentences[0].find("its seal is not renewed"), std::string::npos);
  EXPECT_NE(sentences[0].find("The keyring is locked."), std::string::npos);
  EXPECT_TRUE(later.owes());
  settings_.locked = false;
  clock_.advance(kSealRetry);
  later.renew(LedgerWriter::When::due);
  EXPECT_TRUE(sentencesOf(later.trouble()).empty());
  EXPECT_EQ(decodeSeal(*settings_.seal)->count, 4);
}

TEST_F(Ledger, aLookAtNoLedgerLeavesNothingBehind) {
  {
    CallLedger ledger(path_, {files_, settings_, clock_});
    ledger.look();
    ledger.flush();
    EXPECT_TRUE(ledger.notices().empty());
  }
  EXPECT_FALSE(settings_.seal);
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(Ledger, theSealIsRenewedAtMostOnceASecondAndAtTheEnd) {
  CallLedger ledger(path_, {files_, settings_, clock_});
  for (int i = 1; i <= 20; ++i) {
    ledger.record(call(i));
    ledger.flush();
  }
  EXPECT_EQ(settings_.saves, 1) << "before the first line";
  clock_.advance(1s);
  ledger.flush();
  EXPECT_EQ(settings_.saves, 2);
  ledger.record(call(21));
  ledger.stop();
  EXPECT_EQ(settings_.saves, 3);
  EXPECT_EQ(decodeSeal(*settings_.seal)->count, 21);
}

TEST_F(Ledger, whatIsOldLeavesAndSoDoesWhatIsTooMuch) {
  fill(1200);
  clock_.advance(91 * 24h);
  LedgerWriter later = writer();
  add(later, 1201, 1300);
  EXPECT_EQ(lines().size(), 100u);
  clock_.advance(89 * 24h);
  for (std::int64_t at = 1301; at <= 1301 + 52'000; at += 8000) {
    add(later, at, at + 7999);
    ASSERT_LE(lines().size(), static_cast<std::size_t>(kRetentionLines));
  }
  EXPECT_EQ(lines().back(), encodeCall(call(1300 + 56'000)));
  EXPECT_GE(lines().size(), static_cast<std::size_t>(kRetentionLines - kRetentionCheckLines));
  later.renew(LedgerWriter::When::now);
  EXPECT_EQ(said(), std::vector<std::string>{});
  auto changed = lines();
  changed[40'000][2] = 'X';
  put(changed);
  EXPECT_NE(said().at(0).find("among lines 39"), std::string::npos) << said().at(0);
}

TEST_F(Ledger, whateverStepFailsOrIsTheLastTheFileAgreesWithItsSeal) {
  int runs = 0;
  for (const bool stays : {false, true}) {
    for (const bool after : {false, true}) {
      for (int step = 0;; ++step) {
        settings_.seal.reset();
        std::filesystem::remove(path_);
        fault_ = {};
        clock_.setWall(std::chrono::sys_days{std::chrono::year{2026} / 1 / 1});
        fill(30);
        clock_.advance(60 * 24h);
        {
          LedgerWriter between = writer();
          add(between, 31, 35);
        }
        clock_.advance(31 * 24h);  // the first 30 leave
        fault_ = {step, 0, stays, after};
        LedgerWriter failing = writer();
        for (std::int64_t i = 36; i < 51; i += 3) {
          add(failing, i, i + 2);
          failing.renew(LedgerWriter::When::due);
          clock_.advance(kFileRetry);
        }
        failing.write({});
        failing.renew(LedgerWriter::When::now);
        const bool hit = fault_.steps > step;
        fault_ = {};
        ++runs;
        if (!hit) {
          EXPECT_EQ(lines().size(), 20u);
        }
        ASSERT_EQ(said(), std::vector<std::string>{}) << "step " << step << (stays ? ", and all later ones" : "");
        const auto left = lines();
        if (!stays) {
          EXPECT_EQ(decodeCall(left.back())->chargedMicros, 50) << "step " << step;
        }
        ASSERT_FALSE(left.empty());
        for (std::size_t i = 1; i < left.size(); ++i) {
          EXPECT_EQ(decodeCall(left[i])->chargedMicros, decodeCall(left[i - 1])->chargedMicros + 1) << "step " << step;
        }
        if (!hit) break;
      }
    }
  }
  EXPECT_GT(runs, 30);
}

TEST_F(Ledger, aDiskThatIsFullLosesNothingUntilTooMuchWaits) {
  fault_ = {1, 0, true, false};
  LedgerWriter stuck = writer();
  add(stuck, 1, 10);
  EXPECT_NE(sentencesOf(stuck.trouble()).at(0).find("cannot be written (the disk is full)"), std::string::npos);
  const auto most = static_cast<std::int64_t>(kMostWaiting);
  add(stuck, 11, most + 3);
  EXPECT_EQ(stuck.trouble().lost, 3);
  fault_ = {};
  clock_.advance(kFileRetry);
  stuck.write({});
  EXPECT_EQ(lines().size(), kMostWaiting);
  EXPECT_EQ(sentencesOf(stuck.trouble()).size(), 1u) << "three calls were lost, and that stays said";
}

TEST_F(Ledger, onlyAFileOfTheOwnersOwnIsUsed) {
  const auto elsewhere = folder_.path() / "elsewhere";
  std::ofstream(elsewhere) << "kept\n";
  std::filesystem::create_symlink(elsewhere, path_);
  LedgerWriter linked = writer();
  add(linked, 1, 1);
  EXPECT_TRUE(linked.trouble().file);
  EXPECT_EQ(std::filesystem::file_size(elsewhere), 5u);
  std::filesystem::remove(path_);
  clock_.advance(kSealRetry);
  linked.write({});
  struct stat status {};
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  std::filesystem::permissions(path_, std::filesystem::perms(0644));
  add(linked, 2, 2);
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(Ledger, manyThreadsRecordEveryCallOnceInFewWrites) {
  CallLedger ledger(path_, {files_, settings_, clock_});
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < 200; ++i) ledger.record(call(t * 200 + i));
      });
    }
  }
  std::vector<Micros> seen;
  const auto reading = ledger.read([&](std::string_view line) { seen.push_back(decodeCall(line)->chargedMicros); });
  EXPECT_EQ(reading.lines, 1600);
  std::sort(seen.begin(), seen.end());
  for (std::size_t i = 0; i < seen.size(); ++i) ASSERT_EQ(seen[i], static_cast<Micros>(i));
  EXPECT_LT(files_.appends, 100);
  ledger.stop();
  EXPECT_EQ(ledger.read([](std::string_view) {}).lines, 1600) << "also when it has ended";
}

TEST_F(Ledger, totalsAreExactAndFiltersLeaveOut) {
  LedgerTotals totals;
  ProxyCallRecord record = call(1);
  record.chargedMicros = 333'333;
  record.discrepancy = true;
  for (int i = 0; i < 3; ++i) totals.add(record);
  record.at += 24h;
  record.client = "Other";
  record.chargedMicros = 1;
  totals.add(record);
  EXPECT_EQ(totals.all().chargedMicros, 1'000'000);
  EXPECT_EQ(totals.byDay().at("2026-11-21").calls, 3);
  EXPECT_EQ(totals.byDay().at("2026-11-21").discrepancies, 3);
  EXPECT_EQ(totals.byClient().at("Other").chargedMicros, 1);
  EXPECT_EQ(totals.byModel().at("anthropic:made-up-model").outputTokens, 20);
  record.chargedMicros = kMostMicros;
  totals.add(record);
  EXPECT_EQ(totals.all().chargedMicros, kMostMicros) << "a sum stays at the largest number";

  LedgerFilter filter;
  EXPECT_TRUE(filter.accepts(record));
  filter.since = filter.until = record.at;
  EXPECT_FALSE(filter.accepts(record)) << "the end is not part of it";
  filter.until = record.at + 1s;
  EXPECT_TRUE(filter.accepts(record));
  for (auto LedgerFilter::*field :
       {&LedgerFilter::grant, &LedgerFilter::client, &LedgerFilter::environment, &LedgerFilter::model}) {
    LedgerFilter one;
    one.*field = "nothing";
    EXPECT_FALSE(one.accepts(record));
  }
  filter.model = "anthropic:made-up-model";
  EXPECT_TRUE(filter.accepts(record));
}

TEST_F(Ledger, aSpreadsheetGetsTextAndNoFormula) {
  ProxyCallRecord record = call(1);
  record.client = "=HYPERLINK(\"x\"),\r\n";
  record.model = "a,\"b\"";
  record.grant = "-1";
  const std::string line = csvLine(record);
  EXPECT_NE(line.find(",\"'=HYPERLINK(\"\"x\"\"),\r\n\","), std::string::npos) << line;
  EXPECT_NE(line.find(",\"a,\"\"b\"\"\","), std::string::npos) << line;
  EXPECT_NE(line.find(",\"'-1\","), std::string::npos) << line;
  EXPECT_TRUE(line.ends_with(",false\r\n"));
  const std::string head = csvHead(), plain = csvLine(call(1));
  EXPECT_EQ(std::count(head.begin(), head.end(), ','), std::count(plain.begin(), plain.end(), ','));
}

}  // namespace
}  // namespace sorvane::proxy
