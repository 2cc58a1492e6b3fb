#include "unlock/lock_state.h"

#include <gtest/gtest.h>

#include <set>
#include <tuple>
#include <vector>

namespace sorvane::unlock {
namespace {

using Phase = LockPhase;
using Event = LockEvent;
using Requirement = PassphraseRequirement;

constexpr Event kEvents[] = {
    Event::systemAsked, Event::systemGranted, Event::passphraseGiven, Event::passphraseRight, Event::attemptFailed,
    Event::lock,        Event::hold,          Event::sessionLost,     Event::sessionBack,     Event::resetGranted,
    Event::resetFailed, Event::givenUp};

TEST(LockState, followsTheDrawing) {
  const LockRules off{}, with{.requirement = Requirement::withSystem}, only{.requirement = Requirement::only};
  const struct {
    const LockRules& rules;
    std::vector<Event> events;
    Phase end;
  } cases[] = {
      {off, {Event::systemAsked}, Phase::asking},
      {off, {Event::systemAsked, Event::systemGranted}, Phase::open},
      {off, {Event::systemAsked, Event::attemptFailed}, Phase::locked},
      {off, {Event::systemAsked, Event::lock, Event::systemGranted}, Phase::locked},
      {off, {Event::systemGranted}, Phase::locked},
      {off, {Event::passphraseGiven}, Phase::locked},
      {with, {Event::systemAsked, Event::systemGranted}, Phase::needsPassphrase},
      {with, {Event::passphraseGiven}, Phase::locked},
      {with, {Event::systemAsked, Event::passphraseGiven}, Phase::asking},
      {with, {Event::systemAsked, Event::systemGranted, Event::passphraseGiven}, Phase::checkingPassphrase},
      {with, {Event::systemAsked, Event::systemGranted, Event::passphraseGiven, Event::passphraseRight}, Phase::open},
      {with, {Event::systemAsked, Event::systemGranted, Event::passphraseGiven, Event::attemptFailed}, Phase::locked},
      {only, {Event::systemAsked}, Phase::locked},
      {only, {Event::passphraseGiven}, Phase::checkingPassphrase},
      {only, {Event::passphraseGiven, Event::systemAsked}, Phase::checkingPassphrase},
      {only, {Event::passphraseGiven, Event::passphraseRight}, Phase::open},
      {only, {Event::passphraseGiven, Event::lock, Event::passphraseRight}, Phase::locked},
      {only, {Event::passphraseGiven, Event::passphraseRight, Event::attemptFailed}, Phase::open},
      {only, {Event::resetGranted}, Phase::open},
      {off, {Event::systemAsked, Event::systemGranted, Event::sessionLost}, Phase::open},
      {off, {Event::systemAsked, Event::systemGranted, Event::givenUp}, Phase::open},
      {only, {Event::passphraseGiven, Event::givenUp, Event::passphraseRight}, Phase::locked},
  };
  for (const auto& [rules, events, end] : cases) {
    LockState state;
    for (const Event event : events) state = nextState(state, event, rules);
    EXPECT_EQ(state.phase, end) << "after " << events.size() << " events, " << word(rules.requirement);
  }
}

/// Everything but the generation, and what has happened since the vault was last closed.
struct Reached {
  LockState state;
  bool granted = false, right = false, resetGranted = false, back = false;
  auto key() const {
    return std::tuple(state.phase, state.systemCheckPassed, state.sessionAvailable, state.heldLocked, granted, right,
                      resetGranted, back);
  }
};

void expectSound(const Reached& before, Event event, const Reached& after, const LockRules& rules) {
  const LockState& state = after.state;
  if (state.phase != before.state.phase) {
    EXPECT_GT(state.generation, before.state.generation);
  }
  if (event == Event::givenUp) {
    EXPECT_GT(state.generation, before.state.generation);
  }
  if (event == Event::lock || event == Event::hold || event == Event::resetFailed) {
    EXPECT_EQ(state.phase, Phase::locked);
    EXPECT_GT(state.generation, before.state.generation);
  }
  if (event == Event::sessionLost && rules.followsSession) {
    EXPECT_EQ(state.phase, Phase::locked);
  }
  if (state.phase == Phase::locked) {
    EXPECT_FALSE(state.systemCheckPassed);
  }
  if (!state.isUnlocked() || before.state.isUnlocked()) return;
  EXPECT_TRUE(rules.settingsReadable);
  EXPECT_TRUE(state.sessionAvailable || !rules.followsSession);
  if (event == Event::resetGranted) return;
  const bool bySession = event == Event::sessionBack;
  EXPECT_TRUE(!bySession || (rules.followsSession && rules.sessionReported && !before.state.heldLocked &&
                             rules.requirement == Requirement::off));
  EXPECT_TRUE(bySession || rules.requirement == Requirement::only || after.granted);
  EXPECT_TRUE(rules.requirement == Requirement::off || after.right);
  EXPECT_EQ(state.systemCheckPassed, after.granted);
}

/// Every state that any sequence of events reaches under the rules.
std::size_t walk(const LockRules& rules) {
  std::set<decltype(Reached().key())> seen;
  std::vector<Reached> open{Reached{}};
  while (!open.empty()) {
    const Reached from = open.back();
    open.pop_back();
    if (!seen.insert(from.key()).second) continue;
    for (const Event event : kEvents) {
      Reached to = from;
      to.state = nextState(from.state, event, rules);
      if (event == Event::systemGranted && from.state.phase == Phase::asking) to.granted = true;
      if (event == Event::passphraseRight && from.state.phase == Phase::checkingPassphrase) to.right = true;
      expectSound(from, event, to, rules);
      if (to.state.phase == Phase::locked || to.state.phase == Phase::asking) to.granted = to.right = false;
      open.push_back(to);
    }
  }
  return seen.size();
}

TEST(LockState, isSoundInEverySequenceOfEventsUnderEverySetOfRules) {
  std::size_t states = 0;
  for (const Requirement requirement : kPassphraseRequirements) {
    for (int bits = 0; bits < 8; ++bits) {
      states += walk({.requirement = requirement,
                      .followsSession = (bits & 1) != 0,
                      .settingsReadable = (bits & 2) != 0,
                      .sessionReported = (bits & 4) != 0});
    }
  }
  EXPECT_GT(states, 150U);
}

}  // namespace
}  // namespace sorvane::unlock
