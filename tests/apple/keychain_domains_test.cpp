#include "platform/macos/keychain_domains.h"

#include <gtest/gtest.h>

#include "apple/fake/keychain.h"
#include "vault/accounts.h"
#include "vault/domain_move.h"

namespace sorvane::test {
namespace {

using apple::FakeKeychain;
using Domain = FakeKeychain::Domain;

TEST(KeychainDomains, aStartBringsTheItemsUnderTheOwnGroupAndLeavesThoseOfOthers) {
  FakeKeychain keychain;
  keychain.put({Domain::legacy, "app.sorvane", std::string(vault::kMetadataKeyAccount), "", "", "key"});
  keychain.put({Domain::legacy, "app.sorvane", "sec_1#v1", "", "", "made-up"});
  keychain.put({Domain::legacy, "app.other", "account", "", "", "theirs"});
  {
    const auto domains = platform::openKeychain();
    EXPECT_EQ(keychain.calls(), 0) << "nothing is looked at before the start is ready for it";
    EXPECT_EQ(vault::moveDomain(*domains.legacy, *domains.dataProtection, {}), vault::StoreMoveOutcome::moved);
  }
  EXPECT_EQ(platform::openKeychain().dataProtection->read("sec_1#v1").view(), "made-up");
  for (const auto& item : keychain.items(Domain::dataProtection)) EXPECT_EQ(item.group, "TEAM.app.sorvane");
  ASSERT_EQ(keychain.items(Domain::legacy).size(), 1U);
  EXPECT_EQ(keychain.items(Domain::legacy)[0].service, "app.other");
}

TEST(KeychainDomains, aProcessThatIsNotSignedForTheGroupGetsNeitherAndNoItemIsTouched) {
  for (const auto& groups : {std::vector<std::string>{}, {"TEAM.app.other"}, {"TEAM.notapp.sorvane.else"}}) {
    FakeKeychain keychain;
    keychain.put({Domain::legacy, "app.sorvane", "sec_1#v1", "", "", "made-up"});
    keychain.groups = groups;
    keychain.hasGroups = !groups.empty();
    try {
      platform::openKeychain();
      ADD_FAILURE() << "opened";
    } catch (const platform::NotSigned& error) {
      EXPECT_EQ(error.sentence().find("sorvaned is not signed for the Keychain group app.sorvane, "), 0U);
      EXPECT_NE(error.sentence().find(" nothing was shared. Sign it "), std::string::npos);
    }
    EXPECT_EQ(keychain.calls(), 0);
    EXPECT_EQ(keychain.items(Domain::legacy).size(), 1U);
  }
}

}  // namespace
}  // namespace sorvane::test
