// What a change of the passphrase leaves behind when it fails, or when the process ends, at any of its steps: a store
// that the old or the new passphrase opens, with every row.
#include <sys/wait.h>
#include <unistd.h>

#include "store_gate_fixture.h"

namespace sorvane::test {
namespace {

using namespace unlock;
using Verdict = PassphraseGate::Verdict;
using Requirement = PassphraseRequirement;

/// What opens the store before and after; empty: no passphrase does.
struct Change {
  std::string name;
  std::string_view before, after;
  std::function<void(GatedStore&)> run;
};

const Change kChanges[] = {
    {"set", "", GatedStore::kFirst, [](GatedStore& gated) { gated.adopt(GatedStore::kFirst); }},
    {"change", GatedStore::kFirst, GatedStore::kSecond, [](GatedStore& gated) { gated.adopt(GatedStore::kSecond); }},
    {"remove", GatedStore::kFirst, "", [](GatedStore& gated) { gated.gate().release({}); }},
    {"ask more", GatedStore::kFirst, GatedStore::kFirst,
     [](GatedStore& gated) {
       UnlockConfiguration configuration = gated.gate().load();
       configuration.requirement = Requirement::withSystem;
       gated.gate().save(configuration);
     }},
    {"seal anew", GatedStore::kFirst, GatedStore::kFirst,
     [](GatedStore& gated) {
       StoreWrap wrap = gated.wrap();
       wrap.keyLayInClear = true;
       gated.putWrap(wrap);
       gated.attempt(GatedStore::kFirst);
     }},
    {"unlock a plain store", GatedStore::kFirst, GatedStore::kFirst,
     [](GatedStore& gated) {
       gated.gate().release({});
       gated.gate().save(GatedStore::with(GatedStore::kFirst));
       gated.gate().close();
       gated.attempt(GatedStore::kFirst);
     }},
};

void prepare(GatedStore& gated, const Change& change) {
  gated.fill();
  if (!change.before.empty()) gated.adopt(change.before);
}

/// Opens the closed store with the passphrase; with none only where none is asked.
bool opens(GatedStore& gated, std::string_view passphrase) {
  const UnlockConfiguration known = gated.gate().load();
  if (known.requirement != Requirement::off) {
    return !passphrase.empty() && gated.attempt(passphrase) == Verdict::right;
  }
  if (!passphrase.empty()) return false;
  gated.gate().open();
  return true;
}

void expectWhole(GatedStore& gated, const Change& change, const std::string& when) {
  SCOPED_TRACE(change.name + " " + when);
  ASSERT_TRUE(opens(gated, change.before) || opens(gated, change.after));
  gated.expectRows();
  const UnlockConfiguration stored = gated.gate().load();
  if (gated.gate().isSealed()) {
    EXPECT_EQ(stored.passphrase->salt, gated.wrap().verifierSalt);
    EXPECT_NE(agreementOf(stored,
                          [&] {
                            UnlockConfiguration known = stored;
                            known.requirement = gated.wrap().requirement;
                            return known;
                          }()),
              Agreement::damaged);
    EXPECT_FALSE(gated.has("store.key"));
  }
  EXPECT_FALSE(gated.has("values.db.new"));
}

class GateFaults : public ::testing::TestWithParam<Fault::Kind> {};

TEST_P(GateFaults, leaveAStoreThatTheOldOrTheNewPassphraseOpens) {
  int failures = 0;
  for (const Change& change : kChanges) {
    for (int step = 0;; ++step) {
      ASSERT_LT(step, 60) << change.name;
      GatedStore gated;
      prepare(gated, change);
      gated.fault() = {step, GetParam()};
      const std::string failure = told([&] { change.run(gated); });
      const bool reached = gated.fault().steps > step;
      gated.fault() = {};
      failures += reached;
      const std::string when = "at step " + std::to_string(step) + ": " + failure;
      if (GetParam() != Fault::Kind::stays) {
        // The process lives on. Nothing has changed where it was refused.
        const bool isOpen = gated.door().behind() != nullptr;
        if (isOpen) gated.expectRows();
        gated.gate().close();
        if (!failure.empty() && isOpen) {
          EXPECT_TRUE(opens(gated, change.before)) << change.name << " " << when;
          gated.gate().close();
        }
        expectWhole(gated, change, when);
        gated.gate().close();
      }
      gated.restart();
      expectWhole(gated, change, when + ", after a restart");
      if (::testing::Test::HasFatalFailure()) return;
      if (!reached) break;
    }
  }
  EXPECT_GT(failures, 40) << "the faults were not met";
}

INSTANTIATE_TEST_SUITE_P(, GateFaults, ::testing::Values(Fault::Kind::once, Fault::Kind::late, Fault::Kind::stays),
                         [](const auto& instance) {
                           return instance.param == Fault::Kind::once   ? "once"
                                  : instance.param == Fault::Kind::late ? "afterTheirWork"
                                                                        : "andAllLaterOnes";
                         });

/// The process ends in the middle, its connections to the database open and their logs beside it.
TEST(GateDeath, atEachStepLeavesAStoreThatTheOldOrTheNewPassphraseOpens) {
  int deaths = 0;
  for (const Change& change : kChanges) {
    for (int step = 0;; ++step) {
      ASSERT_LT(step, 60) << change.name;
      GatedStore gated;
      const pid_t child = ::fork();
      if (child == 0) {
        prepare(gated, change);
        gated.fault() = {step, Fault::Kind::ends};
        change.run(gated);
        ::_exit(0);
      }
      int status = 0;
      ::waitpid(child, &status, 0);
      ASSERT_TRUE(WIFEXITED(status));
      gated.restart();
      expectWhole(gated, change, "ended at step " + std::to_string(step));
      if (::testing::Test::HasFatalFailure()) return;
      if (WEXITSTATUS(status) == 0) break;
      ASSERT_EQ(WEXITSTATUS(status), 42);
      ++deaths;
    }
  }
  EXPECT_GT(deaths, 40);
}

}  // namespace
}  // namespace sorvane::test
