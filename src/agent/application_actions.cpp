#include <unistd.h>

#include <nlohmann/json.hpp>

#include "agent/owner_action_handlers.h"
#include "agent/owner_phones.h"
#include "base/json.h"
#include "vault/sealed_settings.h"

namespace sorvane::agent {
namespace {

constexpr std::string_view kRotationGraceDays = "rotationGraceDays";
constexpr std::int64_t kMostGraceDays = 3650;

constexpr std::string_view kNoPhoneIsPaired =
    "No phone is paired, so every request of an agent is denied until one is. Pair one: sorvane phone pair";

void writeJob(base::JsonWriter& out, const Jobs::View& view) {
  out.beginObject().field("id", view.id).field("kind", view.kind).field("state", word(view.state));
  out.key("done").integer(view.done).key("total").integer(view.total).field("error", view.error);
  if (view.document) out.key("document").raw(*view.document);
  out.endObject();
}

std::string noJob(const std::string& id) {
  return "There is no work with the id '" + id + "'. What ended more than an hour ago is forgotten.";
}

}  // namespace

std::int64_t OwnerActionHandlers::rotationGraceDays() {
  try {
    const auto text = ports_.vault.settings().load(vault::kSecuritySetting);
    const auto json = text ? base::parseJson(text->view()) : std::nullopt;
    if (json && json->is_object()) {
      const auto days = json->find(kRotationGraceDays);
      if (days != json->end() && days->is_number_integer()) return days->get<std::int64_t>();
    }
  } catch (const vault::SettingError&) {
    // A badge is no reason to refuse a list; the setting's own failure is told where it is read or written.
  }
  return kDefaultRotationGraceDays;
}

ActionPlan OwnerActionHandlers::status(const ActionArguments&, ActionCall&) {
  return answer([this] {
    const ApplicationState application = ports_.application.state();
    const auto failure = ports_.vault.storageFailure();
    base::JsonWriter out;
    out.beginObject().field("version", application.version).field("supportFolder", application.supportFolder);
    out.key("vaultOpen").boolean(!failure).field("storageFailure", failure);
    out.field("approver", application.approver).strings("capabilities", application.capabilities);
    out.strings("notices", application.notices);
    const StoreState store = ports_.application.store();
    out.key("store").beginObject().field("kind", store.kind).field("note", store.note).endObject();
    out.key("pid").integer(::getpid());
    if (!failure) {
      const auto records = ports_.vault.records();
      out.field("generation", ports_.vault.generation());
      out.key("secrets").integer(static_cast<std::int64_t>(records->secrets.size()));
      out.key("environments").integer(static_cast<std::int64_t>(records->projects.size()));
      out.key("agents").integer(static_cast<std::int64_t>(ports_.grants.view().grants.size()));
      const ApprovalPolicy::Settings policy = ports_.policy.current();
      out.field("policy", word(policy.approval)).field("whoseYesCounts", word(policy.approver));
    }
    out.endObject();
    return withDocument(out);
  });
}

ActionPlan OwnerActionHandlers::settingsGet(const ActionArguments& arguments, ActionCall&) {
  const auto name = arguments.text("name");
  if (name && *name != kRotationGraceDays) {
    throw ActionError("There is no setting named '" + *name + "'. The settings are: rotationGraceDays.");
  }
  return answer([this] {
    base::JsonWriter out;
    out.beginObject().key(kRotationGraceDays).integer(rotationGraceDays()).endObject();
    return withDocument(out);
  });
}

ActionPlan OwnerActionHandlers::settingsSet(const ActionArguments& arguments, ActionCall&) {
  const std::string& name = arguments.need("name");
  if (name != kRotationGraceDays) {
    throw ActionError("There is no setting named '" + name + "'. The settings are: rotationGraceDays.");
  }
  const std::int64_t days = arguments.needInteger("setting");
  if (days < 0 || days > kMostGraceDays) throw ActionError("Choose from 0 to 3650 days. Nothing was changed.");
  return answer([this, days] {
    base::JsonWriter out;
    out.beginObject().key(kRotationGraceDays).integer(days).endObject();
    ports_.vault.settings().save(vault::kSecuritySetting, out.view());
    return done();
  });
}

ActionPlan OwnerActionHandlers::policyGet(const ActionArguments&, ActionCall&) {
  return answer([this] {
    const ApprovalPolicy::Settings policy = ports_.policy.current();
    base::JsonWriter out;
    out.beginObject().field("policy", word(policy.approval)).field("approver", word(policy.approver)).endObject();
    AgentResponse response = withDocument(out);
    response.value = base::SecretText(word(policy.approval));
    return response;
  });
}

void OwnerActionHandlers::requireSystemCheck() const {
  const auto missing = ports_.systemCheckUnavailable
                           ? ports_.systemCheckUnavailable()
                           : std::optional<std::string>("The system's check of its owner is not served here.");
  if (!missing) return;
  throw ActionError(*missing +
                    " Until then the system can ask nobody, and every request would be denied. Nothing was changed. "
                    "Choose terminal, phone or any.");
}

ActionPlan OwnerActionHandlers::policySet(const ActionArguments& arguments, ActionCall& call) {
  ApprovalPolicy::Settings settings = ports_.policy.current();
  const auto name = arguments.text("policy"), who = arguments.text("approver");
  if (!name && !who) throw ActionError("policySet needs policy or approver. Nothing was changed.");
  if (name) {
    const auto policy = agentApprovalOf(*name);
    if (!policy) throw ActionError("Choose perRequest, perEnvironment or unlocked. Nothing was changed.");
    settings.approval = *policy;
  }
  if (who) {
    const auto approver = approverOf(*who);
    if (!approver) throw ActionError("Choose terminal, system, phone or any. Nothing was changed.");
    if (*approver == Approver::system) requireSystemCheck();
    settings.approver = *approver;
  }
  std::string phrase = "change when sorvane asks before agents use the vault. New policy: ";
  phrase.append(word(settings.approval))
      .append(", and the yes that counts comes from: ")
      .append(word(settings.approver));
  const bool warns =
      settings.approver == Approver::phone && (ports_.phones == nullptr || !ports_.phones->isAnyPaired());
  ActionPlan plan = asking(call, phrase, [this, settings, warns, access = access(call, arguments)] {
    ports_.policy.set(settings);
    ports_.vault.log(access);
    AgentResponse response = done();
    if (warns) response.warnings = {std::string(kNoPhoneIsPaired)};
    return response;
  });
  // A policy that waits for a phone that is not there could not be changed any more.
  plan.question->whoseYesCounts = standInForPhone();
  return plan;
}

ActionPlan OwnerActionHandlers::gc(const ActionArguments& arguments, ActionCall& call) {
  const std::int64_t days = arguments.needInteger("days");
  if (days < 0) throw ActionError("Choose a nonnegative grace period.");
  const std::string age = std::to_string(days) + (days == 1 ? " day" : " days");
  return asking(call, "permanently purge retired versions older than " + age,
                [this, days, access = access(call, arguments)] {
                  ports_.vault.log(access);
                  const std::string id = ports_.jobs.start("gc", [this, days](const Jobs::Step& step) {
                    const vault::VaultGcReport report = ports_.vault.collectGarbage(days, step);
                    base::JsonWriter out;
                    out.beginObject().strings("missingValues", report.missingValues);
                    out.key("purgedSwept").integer(report.purgedSwept).endObject();
                    return std::optional(std::string(out.view()));
                  });
                  return withValue(base::SecretText(id));
                },
                {"This will permanently purge retired versions and end task sessions."});
}

ActionPlan OwnerActionHandlers::storeShow(const ActionArguments&, ActionCall&) {
  return answer([this] {
    const StoreState store = ports_.application.store();
    base::JsonWriter out;
    out.beginObject().field("kind", store.kind).key("items").integer(ports_.application.storeItems());
    out.field("note", store.note);
    out.key("moving").boolean(store.moving).endObject();
    return withDocument(out);
  });
}

ActionPlan OwnerActionHandlers::storeMove(const ActionArguments& arguments, ActionCall& call) {
  const std::string to = arguments.need("to");
  ports_.application.checkStoreMove(to);
  return asking(call, "move every value to another credential store. New store: " + to,
                [this, to, access = access(call, arguments)] {
                  ports_.vault.log(access);
                  const std::string id = ports_.jobs.start("storeMove", [this, to](const Jobs::Step& step) {
                    return ports_.application.moveStore(to, step);
                  });
                  return withValue(base::SecretText(id));
                });
}

ActionPlan OwnerActionHandlers::job(const ActionArguments& arguments, ActionCall&) {
  const std::string id = arguments.need("id");
  return answer([this, id] {
    const auto view = ports_.jobs.view(id);
    if (!view) throw ActionError(noJob(id));
    base::JsonWriter out;
    writeJob(out, *view);
    return withDocument(out);
  });
}

ActionPlan OwnerActionHandlers::jobCancel(const ActionArguments& arguments, ActionCall&) {
  const std::string id = arguments.need("id");
  return answer([this, id] {
    if (!ports_.jobs.cancel(id)) throw ActionError(noJob(id));
    return done();
  });
}

}  // namespace sorvane::agent
