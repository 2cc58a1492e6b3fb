#include "app/application_actions.h"

#include <algorithm>

#include "agent/stand_ins.h"
#include "base/json_writer.h"
#include "platform/adapters.h"

namespace sorvane::app {
namespace {

using vault::StoreKind;

StoreKind storeNamed(const std::string& name) {
  const auto kind = vault::storeKindOf(name);
  const auto offered = platform::storeKinds();
  if (offered.size() == 1) {
    throw vault::StoreMoveError("On this system the values are always kept in " +
                                std::string(inWords(offered.front())) + ". Nothing was moved.");
  }
  if (!kind || std::find(offered.begin(), offered.end(), *kind) == offered.end()) {
    throw vault::StoreMoveError("Choose " + vault::wordsOf(offered) + " as the store. Nothing was moved.");
  }
  return *kind;
}

std::string remainder(StoreKind leaving) {
  return "All values are in the new store, but " + std::string(inWords(leaving)) +
         " still holds copies of some. Restart sorvaned to remove them.";
}

}  // namespace

agent::ApplicationState ApplicationActions::state() {
  agent::ApplicationState state = state_;
  if (proxy_.port()) state.capabilities.emplace_back(agent::kLocalProxyCapability);
  for (std::string& notice : proxy_.notices()) state.notices.push_back(std::move(notice));
  if (const auto leaving = stores_.record().leaving; leaving && !stores_.inUse().isClosed()) {
    state.notices.push_back(remainder(*leaving));
  }
  return state;
}

agent::StoreState ApplicationActions::store() {
  const StoreKind kind = stores_.record().kind;
  agent::StoreState state;
  state.kind = word(kind);
  state.note = stores_.protectionInWords();
  state.moving = stores_.inUse().isClosed();
  return state;
}

std::int64_t ApplicationActions::storeItems() {
  return stores_.inUse().isClosed() ? 0 : static_cast<std::int64_t>(stores_.inUse().accounts().size());
}

void ApplicationActions::checkStoreMove(const std::string& to) {
  stores_.checkMove(storeNamed(to));
}

std::optional<std::string> ApplicationActions::moveStore(const std::string& to, const agent::Jobs::Step& step) {
  vault::StoreMoveSteps steps;
  steps.proceed = [&](std::size_t done, std::size_t total) {
    try {
      step(static_cast<std::int64_t>(done), static_cast<std::int64_t>(total));
      return true;
    } catch (const agent::JobStopped&) {
      return false;
    }
  };
  const StoreKind kind = storeNamed(to);
  const StoreKind from = stores_.record().kind;
  const vault::StoreMoveOutcome outcome = stores_.move(kind, steps);
  if (outcome == vault::StoreMoveOutcome::stopped) throw agent::JobStopped();
  base::JsonWriter document;
  document.beginObject().field("kind", word(kind));
  if (outcome == vault::StoreMoveOutcome::remainderLeft) document.field("note", remainder(from));
  document.endObject();
  return std::string(document.view());
}

}  // namespace sorvane::app
