#include "agent/copied_value.h"
#include "agent/owner_action_handlers.h"
#include "base/date.h"
#include "base/unicode.h"
#include "vault/deployment_policy.h"

namespace sorvane::agent {
namespace {

using vault::Secret;
using vault::SecretVersion;

void writeVersion(base::JsonWriter& out, const SecretVersion& version) {
  const auto date = [&](std::string_view name, const std::optional<base::Date>& value) {
    if (value) out.field(name, base::iso8601(*value));
  };
  out.beginObject().key("version").integer(version.version).field("label", version.label);
  out.field("createdAt", base::iso8601(version.createdAt)).field("status", word(version.status));
  date("expiresAt", version.expiresAt);
  date("retiredAt", version.retiredAt);
  if (version.allowedDeploymentTargets) out.strings("allowedDeploymentTargets", *version.allowedDeploymentTargets);
  out.endObject();
}

void writeFields(base::JsonWriter& out, const Secret& secret, vault::RotationStatus rotation) {
  out.field("id", secret.id).field("name", secret.name).field("description", secret.description);
  out.strings("tags", secret.tags).field("icon", secret.icon).key("isFavorite").boolean(secret.isFavorite);
  out.key("currentVersion").integer(secret.currentVersion);
  out.field("createdAt", base::iso8601(secret.createdAt)).field("updatedAt", base::iso8601(secret.updatedAt));
  out.field("rotation", word(rotation)).field("badge", badge(rotation));
}

/// Targets as given: none, or words that were read.
std::optional<std::vector<std::string>> targetsOf(const ActionArguments& arguments) {
  const auto words = arguments.list("targets");
  if (!words) return std::nullopt;
  return vault::parseTargets(*words);
}

vault::NewVersion newVersionOf(const ActionArguments& arguments, ActionCall& call) {
  vault::NewVersion version;
  if (!call.value || call.value->empty()) {
    throw ActionError(std::string(arguments.action()) + " needs a non-empty value. Nothing was saved.");
  }
  if (call.value->size() > vault::kMaxValueBytes) throw vault::SecretStoreError::tooLarge(call.value->size());
  version.label = arguments.clearable("label").value_or(std::nullopt);
  version.expiresAt = arguments.date("expiresAt").value_or(std::nullopt);
  version.allowedDeploymentTargets = targetsOf(arguments);
  vault::checkTargetsAtEntry(version.allowedDeploymentTargets, call.value->view());
  version.value = std::move(*call.value);
  return version;
}

/// The version an action is about, which must hold a value.
std::int64_t versionOf(const ActionArguments& arguments, const Secret& secret, std::int64_t otherwise) {
  const std::int64_t number = arguments.integer("version").value_or(otherwise);
  const SecretVersion* const version = secret.find(number);
  if (version == nullptr || version->status == vault::VersionStatus::purged)
    throw ActionError("Choose a valid version.");
  return number;
}

std::string described(const Secret& secret, std::int64_t version) {
  return secret.name + ", version " + std::to_string(version);
}

}  // namespace

Secret OwnerActionHandlers::secretNamed(const ActionArguments& arguments, std::string_view argument) {
  const std::string& name = arguments.need(argument);
  const auto records = ports_.vault.records();
  const Secret* const secret = records->secretByName(name);
  if (secret == nullptr) {
    throw ActionError("There is no secret named '" + name +
                      "'. Nothing was changed or shared. sorvane secret list shows the names.");
  }
  return *secret;
}

vault::AccessContext OwnerActionHandlers::access(const ActionCall& call, const ActionArguments& arguments) const {
  vault::AccessContext context = call.access;
  context.tool = arguments.action();
  return context;
}

void OwnerActionHandlers::writeSummary(base::JsonWriter& out, const Secret& secret, std::int64_t graceDays) {
  const SecretVersion* const current = secret.current();
  out.beginObject();
  writeFields(out, secret, rotationStatus(secret, ports_.clock.now(), graceDays));
  out.key("versions").integer(static_cast<std::int64_t>(secret.versions.size()));
  if (current != nullptr) {
    out.field("label", current->label);
    if (current->expiresAt) out.field("expiresAt", base::iso8601(*current->expiresAt));
    if (current->allowedDeploymentTargets) out.strings("allowedDeploymentTargets", *current->allowedDeploymentTargets);
  }
}

ActionPlan OwnerActionHandlers::secretList(const ActionArguments&, ActionCall&) {
  return answer([this] {
    const auto records = ports_.vault.records();
    const std::int64_t graceDays = rotationGraceDays();
    std::map<std::string_view, std::vector<std::string>> users;
    for (const vault::Project& project : records->projects) {
      for (const vault::EnvBinding& binding : project.bindings) {
        auto& names = users[binding.secretId];
        if (names.empty() || names.back() != project.name) names.push_back(project.name);
      }
    }
    base::JsonWriter out;
    out.beginObject().key("secrets").beginArray();
    for (const Secret& secret : records->secrets) {
      writeSummary(out, secret, graceDays);
      out.strings("environments", users[secret.id]).endObject();
    }
    out.endArray().endObject();
    return withDocument(out);
  });
}

ActionPlan OwnerActionHandlers::secretShow(const ActionArguments& arguments, ActionCall&) {
  return answer([this, secret = secretNamed(arguments)] {
    const auto records = ports_.vault.records();
    base::JsonWriter out;
    out.beginObject();
    writeFields(out, secret, rotationStatus(secret, ports_.clock.now(), rotationGraceDays()));
    out.key("versions").beginArray();
    for (const SecretVersion& version : secret.versions) writeVersion(out, version);
    out.endArray().key("environments").beginArray();
    for (const vault::Project* const project : records->projectsUsing(secret.id)) {
      for (const vault::EnvBinding& binding : project->bindings) {
        if (binding.secretId != secret.id) continue;
        out.beginObject().field("name", project->name).field("variable", binding.envVarName);
        if (binding.pinVersion) out.key("pinVersion").integer(*binding.pinVersion);
        out.endObject();
      }
    }
    out.endArray().endObject();
    return withDocument(out);
  });
}

ActionPlan OwnerActionHandlers::secretAdd(const ActionArguments& arguments, ActionCall& call) {
  auto secret = std::make_shared<vault::NewSecret>();
  secret->name = arguments.text("name").value_or("");
  secret->description = arguments.text("description").value_or("");
  secret->tags = arguments.list("tags").value_or(std::vector<std::string>{});
  secret->icon = arguments.clearable("icon").value_or(std::nullopt);
  secret->isFavorite = arguments.boolean("favorite").value_or(false);
  // A name that cannot be used is told before the value is looked at.
  if (!base::trimmed(secret->name).empty() && ports_.vault.records()->secretByName(secret->name) == nullptr) {
    secret->first = newVersionOf(arguments, call);
  }
  const bool hasValue = !secret->first.value.empty();
  return answer([this, secret, hasValue, access = access(call, arguments)] {
    if (!hasValue && !base::trimmed(secret->name).empty() &&
        ports_.vault.records()->secretByName(secret->name) == nullptr) {
      throw ActionError("The name was taken a moment ago. Nothing was saved. Try again.");
    }
    const Secret made = ports_.vault.createSecret(std::move(*secret));
    ports_.vault.log(access);
    return withValue(base::SecretText(made.id));
  });
}

ActionPlan OwnerActionHandlers::secretEdit(const ActionArguments& arguments, ActionCall&) {
  const Secret secret = secretNamed(arguments);
  vault::SecretEdit edit{arguments.text("description"), arguments.list("tags"), arguments.clearable("icon"),
                         arguments.boolean("favorite")};
  vault::VersionEdit versionEdit{arguments.clearable("label"), arguments.date("expiresAt")};
  const std::int64_t number = arguments.integer("version").value_or(secret.currentVersion);
  if (secret.find(number) == nullptr) throw ActionError("Choose a valid version.");
  const bool editsVersion = versionEdit.label || versionEdit.expiresAt;
  const bool editsSecret = edit.description || edit.tags || edit.icon || edit.isFavorite;
  if (!editsVersion && !editsSecret) throw ActionError("secretEdit needs something to change. Nothing was changed.");
  return answer([=, this, id = secret.id] {
    if (editsSecret) ports_.vault.editSecret(id, edit);
    if (editsVersion) ports_.vault.editVersion(id, number, versionEdit);
    return done();
  });
}

ActionPlan OwnerActionHandlers::secretRotate(const ActionArguments& arguments, ActionCall& call) {
  const Secret secret = secretNamed(arguments);
  auto version = std::make_shared<vault::NewVersion>(newVersionOf(arguments, call));
  return asking(call, "rotate a secret and end task sessions. Secret: " + secret.name,
                [this, id = secret.id, version, access = access(call, arguments)] {
                  const Secret rotated = ports_.vault.addVersion(id, std::move(*version));
                  ports_.vault.log(access);
                  return withValue(base::SecretText(std::to_string(rotated.currentVersion)));
                });
}

ActionPlan OwnerActionHandlers::secretReveal(const ActionArguments& arguments, ActionCall& call) {
  const Secret secret = secretNamed(arguments);
  ports_.vault.requireUnprotected(secret.id);
  const std::int64_t version = versionOf(arguments, secret, secret.currentVersion);
  ActionPlan plan = asking(call, "read " + described(secret, version),
                           [this, id = secret.id, version, access = access(call, arguments)] {
                             return withValue(ports_.vault.reveal(id, version, std::nullopt, access).value);
                           },
                           {"The value is shown where the command was typed."});
  plan.question->prompt.kind = OwnerApprovalPrompt::Kind::readSecret;
  plan.question->prompt.subject = secret.name;
  plan.question->prompt.version = version;
  return plan;
}

ActionPlan OwnerActionHandlers::secretCopy(const ActionArguments& arguments, ActionCall& call) {
  const Secret secret = secretNamed(arguments);
  ports_.vault.requireUnprotected(secret.id);
  const std::int64_t version = versionOf(arguments, secret, secret.currentVersion);
  if (!ports_.clipboard.available()) {
    throw ActionError(
        "This session has no clipboard that sorvaned can use, so nothing was copied. Install wl-clipboard or xclip, "
        "or start sorvaned inside the desktop session.");
  }
  ActionPlan plan = asking(
      call, "copy to the clipboard " + described(secret, version),
      [this, id = secret.id, version, access = access(call, arguments)] {
        const vault::RevealResult revealed = ports_.vault.reveal(id, version, std::nullopt, access);
        if (!ports_.copied.copy(revealed.value)) {
          throw ActionError(
              "The clipboard could not be written, so nothing was copied. Try again inside the desktop session.");
        }
        return withValue(
            base::SecretText("Copied. The clipboard is cleared in 45 seconds unless you copy something else."));
      },
      {"Every program of this desktop session can read the clipboard until it is cleared."});
  plan.question->prompt.kind = OwnerApprovalPrompt::Kind::readSecret;
  plan.question->prompt.subject = secret.name;
  plan.question->prompt.version = version;
  return plan;
}

ActionPlan OwnerActionHandlers::secretRename(const ActionArguments& arguments, ActionCall& call) {
  const Secret secret = secretNamed(arguments);
  const std::string name = arguments.need("newName");
  const bool rebind = arguments.boolean("rebind").value_or(false);
  const auto records = ports_.vault.records();
  const Secret* const holder = records->secretByName(name);
  if (holder != nullptr && holder->id != secret.id) throw ActionError("A secret with this name already exists.");
  std::vector<std::string> details;
  if (rebind)
    details.emplace_back("Variables of its old name are renamed too, which ends task sessions of their environments.");
  return asking(
      call, "rename a secret. Secret: " + secret.name + ". New name: " + name,
      [this, id = secret.id, name, rebind, access = access(call, arguments)] {
        ports_.vault.renameSecret(id, name, rebind ? vault::Vault::Rebind::yes : vault::Vault::Rebind::no);
        ports_.vault.log(access);
        return done();
      },
      std::move(details));
}

ActionPlan OwnerActionHandlers::secretRestore(const ActionArguments& arguments, ActionCall& call) {
  const Secret secret = secretNamed(arguments);
  arguments.needInteger("version");
  const std::int64_t version = versionOf(arguments, secret, 0);
  return asking(call, "restore an earlier secret version and end task sessions. Secret: " + described(secret, version),
                [this, id = secret.id, version, access = access(call, arguments)] {
                  const Secret restored = ports_.vault.restoreVersion(id, version);
                  ports_.vault.log(access);
                  return withValue(base::SecretText(std::to_string(restored.currentVersion)));
                });
}

ActionPlan OwnerActionHandlers::secretLimit(const ActionArguments& arguments, ActionCall& call) {
  const Secret secret = secretNamed(arguments);
  const std::int64_t version = versionOf(arguments, secret, secret.currentVersion);
  const auto words = arguments.list("targets");
  if (!words) throw ActionError("Choose one or more of development, staging, production.");
  // Here an empty list lifts the limit.
  const auto targets = words->empty() ? std::nullopt : targetsOf(arguments);
  const std::size_t users = ports_.vault.records()->projectsUsing(secret.id, version).size();
  std::string to;
  for (const std::string& target : targets.value_or(std::vector<std::string>{}))
    to += (to.empty() ? "" : ", ") + target;
  return asking(call,
                "change where a secret version may be delivered" + vault::sessionsEndedNote(users) +
                    ". Secret: " + described(secret, version) + ". Allowed: " + (to.empty() ? "everywhere" : to),
                [this, id = secret.id, version, targets, access = access(call, arguments)] {
                  ports_.vault.limitVersion(id, version, targets);
                  ports_.vault.log(access);
                  return done();
                });
}

ActionPlan OwnerActionHandlers::secretRemove(const ActionArguments& arguments, ActionCall& call) {
  const Secret secret = secretNamed(arguments);
  return asking(call, "delete a secret and end task sessions. Secret: " + secret.name,
                [this, id = secret.id, access = access(call, arguments)] {
                  ports_.vault.deleteSecret(id);
                  ports_.vault.log(access);
                  return done();
                },
                {"Its " + std::to_string(secret.versions.size()) + " version(s) are lost for good."});
}

}  // namespace sorvane::agent
