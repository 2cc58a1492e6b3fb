#include <algorithm>

#include "agent/owner_action_handlers.h"
#include "agent/task_sessions.h"
#include "base/unicode.h"

namespace sorvane::agent {
namespace {

/// Longest label in characters that a prompt shows whole.
constexpr std::size_t kMaxLabelBytes = 200;

std::string labelAtEntry(std::string_view text) {
  const std::string label(base::trimmed(text));
  if (label.empty() || label.size() > kMaxLabelBytes || label != base::escapedForDisplay(label)) {
    throw ActionError("Choose a label of at most 200 plain characters. Nothing was changed.");
  }
  return label;
}

/// The identity that the connection's sessions bear; empty when there is no such connection.
std::string identityOf(const GrantStore::View& view, std::string_view label) {
  const auto found = std::find_if(view.grants.begin(), view.grants.end(),
                                  [&](const ClientGrant& grant) { return grant.label == label; });
  return found == view.grants.end() ? std::string() : found->tokenHash;
}

std::string scopeInWords(const std::optional<std::string>& environment) {
  if (!environment) return "every environment";
  return environment->empty() ? "no environment" : "the environment " + *environment;
}

void writeGrants(base::JsonWriter& out, const GrantStore::View& view) {
  out.beginObject().key("agents").beginArray();
  for (const ClientGrant& grant : view.grants) {
    out.beginObject().field("id", grant.id).field("label", grant.label).field("environment", grant.environment);
    out.key("allowReveal").boolean(grant.allowReveal).key("autoApprove").boolean(grant.autoApprove).endObject();
  }
  out.endArray().key("trusted").boolean(view.trusted).field("sentence", view.sentence).endObject();
}

}  // namespace

ActionPlan OwnerActionHandlers::agentList(const ActionArguments&, ActionCall&) {
  return answer([this] {
    base::JsonWriter out;
    writeGrants(out, ports_.grants.view());
    return withDocument(out);
  });
}

ActionPlan OwnerActionHandlers::agentAdd(const ActionArguments& arguments, ActionCall& call) {
  GrantStore::NewGrant grant{
      labelAtEntry(arguments.need("label")), {}, arguments.boolean("allowReveal").value_or(false)};
  const auto scope = arguments.text("environment");
  if (scope && !scope->empty()) grant.environment = projectNamed(arguments, "environment").name;
  std::vector<std::string> details{"It may use " + scopeInWords(grant.environment) + ". Raw values are " +
                                   (grant.allowReveal ? "allowed." : "off.")};
  const GrantStore::View view = ports_.grants.view();
  if (!view.trusted && view.sentence) details.push_back(*view.sentence + " The connections of that file are dropped.");
  return asking(
      call, "connect an agent. Label: " + grant.label,
      [this, grant, access = access(call, arguments)] {
        base::SecretText token = ports_.grants.add(grant).token;
        ports_.vault.log(access);
        return withValue(std::move(token));
      },
      std::move(details));
}

ActionPlan OwnerActionHandlers::agentEdit(const ActionArguments& arguments, ActionCall& call) {
  const std::string label = arguments.need("label");
  const auto reveal = arguments.boolean("allowReveal");
  auto scope = arguments.clearable("environment");
  if (scope && *scope) scope = projectNamed(arguments, "environment").name;
  std::optional<std::string> newLabel;
  if (arguments.text("newLabel")) newLabel = labelAtEntry(arguments.need("newLabel"));
  if (!reveal && !scope && !newLabel) throw ActionError("agentEdit needs something to change. Nothing was changed.");
  std::vector<std::string> details;
  if (scope) details.push_back("It may then use " + scopeInWords(*scope) + ".");
  if (reveal) details.push_back(std::string("Raw values are then ") + (*reveal ? "allowed." : "off."));
  if (newLabel) details.push_back("Its new label is " + *newLabel + ".");
  return asking(
      call, "change an agent connection. Label: " + label,
      [=, this, identity = identityOf(ports_.grants.view(), label), access = access(call, arguments)] {
        ports_.grants.edit(label, [&](ClientGrant& grant) {
          if (reveal) grant.allowReveal = *reveal;
          if (scope) grant.environment = *scope;
          if (newLabel) grant.label = *newLabel;
        });
        // What its sessions were approved for is no longer what it may do.
        ports_.sessions.endOf(identity);
        ports_.vault.log(access);
        return done();
      },
      std::move(details));
}

ActionPlan OwnerActionHandlers::agentConfirm(const ActionArguments& arguments, ActionCall& call) {
  std::string labels;
  for (const ClientGrant& grant : ports_.grants.view().grants) labels += (labels.empty() ? "" : ", ") + grant.label;
  return asking(
      call, "let agent connections of an earlier version count again. Labels: " + (labels.empty() ? "none" : labels),
      [this, access = access(call, arguments)] {
        ports_.grants.confirm();
        ports_.vault.log(access);
        base::JsonWriter out;
        writeGrants(out, ports_.grants.view());
        return withDocument(out);
      });
}

ActionPlan OwnerActionHandlers::agentRemove(const ActionArguments& arguments, ActionCall& call) {
  const std::string label = arguments.need("label");
  return asking(call, "remove an agent connection. Label: " + label,
                [this, label, identity = identityOf(ports_.grants.view(), label), access = access(call, arguments)] {
                  ports_.grants.remove(label);
                  ports_.sessions.endOf(identity);
                  ports_.vault.log(access);
                  return done();
                });
}

}  // namespace sorvane::agent
