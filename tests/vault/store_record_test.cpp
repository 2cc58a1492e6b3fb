#include <gtest/gtest.h>

#include <array>
#include <thread>

#include "support/doubles.h"
#include "vault/movable_store.h"
#include "vault/store_move.h"
#include "vault/store_record.h"
#include "vault/vault_fixture.h"

namespace sorvane::test {
namespace {

using vault::StoreChoice;
using vault::StoreKind;
using vault::StoreRecord;

constexpr std::array kLinux{StoreKind::embedded, StoreKind::secretService};
constexpr std::array kMacOS{StoreKind::keychain};

TEST(StoreRecord, theStoreIsChosenOnceAndNeverChangedSilently) {
  using Write = StoreChoice::Write;
  struct Case {
    const char* what;
    std::optional<StoreKind> asked;
    vault::ReadRecord found;
    vault::StoreTraces traces;
    std::optional<StoreKind> chosen;  ///< absent: refused
    Write write = Write::no;
    std::span<const StoreKind> offered = kLinux;
  };
  const StoreRecord embedded{StoreKind::embedded, {}}, keyring{StoreKind::secretService, {}};
  const Case cases[] = {
      {"a first start", {}, {}, {}, StoreKind::embedded, Write::now},
      {"a first start that asks", StoreKind::secretService, {}, {}, StoreKind::secretService, Write::now},
      {"a later start", {}, {keyring}, {true, false}, StoreKind::secretService, Write::no},
      {"a later start that asks for the same",
       StoreKind::embedded,
       {embedded},
       {true, true},
       StoreKind::embedded,
       Write::no},
      {"another store", StoreKind::secretService, {embedded}, {true, true}, {}},
      {"a record that is gone beside a keyring vault", {}, {}, {true, false}, {}},
      {"the same, told by the owner",
       StoreKind::secretService,
       {},
       {true, false},
       StoreKind::secretService,
       Write::onceOpened},
      {"a record that is gone beside the database", {}, {}, {true, true}, StoreKind::embedded, Write::onceOpened},
      {"a damaged record", {}, {std::nullopt, true}, {true, true}, {}},
      {"a first start on macOS", {}, {}, {}, StoreKind::keychain, Write::now, kMacOS},
      {"the one store there is, without its record",
       {},
       {std::nullopt, true},
       {true, true},
       StoreKind::keychain,
       Write::onceOpened,
       kMacOS},
      {"a folder of another system", {}, {embedded}, {true, true}, {}, Write::no, kMacOS},
      {"a folder that was moving there",
       {},
       {StoreRecord{StoreKind::keychain, StoreKind::embedded}},
       {true, true},
       {},
       Write::no,
       kMacOS},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.what);
    try {
      const StoreChoice choice = vault::chooseStore(test.asked, test.found, test.traces, test.offered);
      EXPECT_EQ(choice.record.kind, test.chosen);
      EXPECT_EQ(choice.write, test.write);
    } catch (const vault::StoreRecordError& error) {
      EXPECT_FALSE(test.chosen) << error.sentence();
      EXPECT_NE(error.sentence().find("Nothing was opened."), std::string::npos);
    }
  }
  EXPECT_NE(sentenceOf([&] {
              vault::chooseStore(StoreKind::secretService, {embedded}, {}, kLinux);
            }).find("run sorvane store move secret-service."),
            std::string::npos);
  EXPECT_NE(sentenceOf([&] {
              vault::chooseStore({}, {std::nullopt, true}, {}, kLinux);
            }).find("with --store embedded or --store secret-service, whichever"),
            std::string::npos);
}

TEST(StoreRecord, isReadBackAsItWasWrittenAndNothingElseIsOne) {
  for (const StoreRecord& record : {StoreRecord{StoreKind::secretService, StoreKind::embedded},
                                    StoreRecord{StoreKind::embedded, {}}, StoreRecord{StoreKind::keychain, {}}}) {
    EXPECT_EQ(vault::decodeStoreRecord(vault::encodeStoreRecord(record)), record);
  }
  for (const std::string_view text :
       {"", "[]", "{}", R"({"kind":"elsewhere"})", R"({"kind":1})", R"({"kind":"embedded","leaving":"embedded"})",
        R"({"kind":"embedded","leaving":7})"}) {
    EXPECT_FALSE(vault::decodeStoreRecord(text)) << text;
  }
}

TEST(MovableStore, letsNobodyElseInDuringAMoveAndServesTheNewStoreAfterwards) {
  const auto first = std::make_shared<MemorySecretStore>(), second = std::make_shared<MemorySecretStore>();
  vault::MovableStore store(first);
  store.store("account", base::SecretText("made-up"));
  {
    vault::MovableStore::Closed closed(store);
    for (const auto& call :
         {std::function<void()>([&] { store.read("account"); }),
          std::function<void()>([&] { store.store("account", base::SecretText("other")); }),
          std::function<void()>([&] { store.remove("account"); }), std::function<void()>([&] { store.accounts(); }),
          std::function<void()>([&] { const vault::MovableStore::Closed again(store); })}) {
      EXPECT_EQ(sentenceOf(call), vault::kStoreMoveRunning);
    }
    EXPECT_EQ(closed.store().read("account").view(), "made-up");
    second->store("account", base::SecretText("moved"));
    closed.replace(second);
  }
  EXPECT_EQ(store.read("account").view(), "moved");
}

}  // namespace
}  // namespace sorvane::test
