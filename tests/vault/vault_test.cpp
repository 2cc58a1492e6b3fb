#include "vault/vault.h"

#include <gmock/gmock.h>

#include "vault/accounts.h"
#include "vault_fixture.h"

namespace sorvane::vault {
namespace {

using test::newSecret;
using test::newVersion;
using test::sentenceOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class VaultTest : public test::VaultFixture {};

TEST_F(VaultTest, whatWasChangedIsThereAfterItIsOpenedAgain) {
  NewSecret made = newSecret("  DATABASE_URL\n", "value one");
  made.description = "the \"main\" database\n— zweite Zeile";
  made.tags = {"db", "été"};
  made.icon = "cylinder";
  made.isFavorite = true;
  made.first.label = "first";
  made.first.expiresAt = clock_.now() + std::chrono::hours(24);
  made.first.allowedDeploymentTargets = {{"staging", "development"}};
  const Secret secret = vault().createSecret(std::move(made));
  clock_.advance(std::chrono::seconds(5));
  const Secret rotated = vault().addVersion(secret.id, newVersion("value two"));
  const Project project = vault().createEnvironment({"web", "notes", "/srv/web", "staging"});
  vault().bind(project.id, {"DATABASE_URL", secret.id, 1, true});
  const Project bound = vault().bind(project.id, {"SECOND", secret.id, {}, {}});
  const Records before = *vault().records();

  const Records after = *open().records();
  EXPECT_EQ(vault().storageFailure(), std::nullopt);
  EXPECT_EQ(after.secrets, before.secrets);
  EXPECT_EQ(after.projects, before.projects);
  ASSERT_EQ(after.secrets, std::vector<Secret>{rotated});
  ASSERT_EQ(after.projects, std::vector<Project>{bound});
  EXPECT_EQ(rotated.name, "DATABASE_URL");
  EXPECT_EQ(rotated.currentVersion, 2);
  EXPECT_EQ(rotated.versions[0].status, VersionStatus::retired);
  EXPECT_EQ(rotated.versions[0].retiredAt, clock_.now());
  EXPECT_THAT(*rotated.versions[0].allowedDeploymentTargets, ElementsAre("development", "staging"));
  EXPECT_EQ(valueOf(secret.id, 1), "value one");
  EXPECT_EQ(valueOf(secret.id, 2), "value two");
}

}  // namespace
}  // namespace sorvane::vault
