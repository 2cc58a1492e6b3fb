#include "agent/owner_action_handlers.h"
#include "base/date.h"
#include "vault/deployment_policy.h"
#include "vault/run_control.h"

namespace sorvane::agent {
namespace {

using vault::EnvBinding;
using vault::Project;

void writeFields(base::JsonWriter& out, const Project& project) {
  out.field("id", project.id).field("name", project.name).field("description", project.description);
  out.field("rootPath", project.rootPath).field("deploymentTarget", project.deploymentTarget);
  out.field("createdAt", base::iso8601(project.createdAt)).field("updatedAt", base::iso8601(project.updatedAt));
}

/// Why a binding delivers nothing, as far as the records tell; empty when nothing is wrong.
std::string problemOf(const EnvBinding& binding, const vault::Secret* secret) {
  if (secret == nullptr) return "bound secret no longer exists";
  const std::int64_t number = binding.pinVersion.value_or(secret->currentVersion);
  const vault::SecretVersion* const version = secret->find(number);
  if (version == nullptr) return "version " + std::to_string(number) + " of '" + secret->name + "' does not exist";
  if (version->status == vault::VersionStatus::purged) {
    return "version " + std::to_string(number) + " of '" + secret->name + "' was purged";
  }
  return "";
}

const EnvBinding& bindingOf(const Project& project, const std::string& variable) {
  const EnvBinding* const binding = project.find(variable);
  if (binding == nullptr) {
    throw ActionError("The environment '" + project.name + "' has no variable named " + variable +
                      ". Nothing was changed.");
  }
  return *binding;
}

std::optional<std::string> targetNamed(const std::string& word) {
  if (word.empty()) return std::nullopt;
  return vault::parseTargets({word}).front();
}

/// The name that the environment bears by now: it may have been renamed while the owner was asked.
std::string presentName(const vault::Records& records, const std::string& id) {
  const Project* const project = records.projectById(id);
  if (project == nullptr) throw ActionError("The environment is gone by now. Nothing was changed.");
  return project->name;
}

void requireFreeName(const vault::Records& records, const std::string& name, const std::string& id) {
  const Project* const holder = records.projectByName(name);
  if (holder != nullptr && holder->id != id) throw ActionError("a project named '" + name + "' already exists");
}

}  // namespace

Project OwnerActionHandlers::projectNamed(const ActionArguments& arguments, std::string_view argument) {
  const std::string& name = arguments.need(argument);
  const auto records = ports_.vault.records();
  const Project* const project = records->projectByName(name);
  if (project == nullptr) {
    throw ActionError("There is no environment named '" + name +
                      "'. Nothing was changed or shared. sorvane env list shows the names.");
  }
  return *project;
}

ActionPlan OwnerActionHandlers::environmentList(const ActionArguments&, ActionCall&) {
  return answer([this] {
    const auto records = ports_.vault.records();
    base::JsonWriter out;
    out.beginObject().key("environments").beginArray();
    for (const Project& project : records->projects) {
      std::int64_t missing = 0;
      for (const EnvBinding& binding : project.bindings) {
        missing += !problemOf(binding, records->secretById(binding.secretId)).empty();
      }
      out.beginObject();
      writeFields(out, project);
      out.key("variables")
          .integer(static_cast<std::int64_t>(project.bindings.size()))
          .key("missing")
          .integer(missing)
          .endObject();
    }
    out.endArray().endObject();
    return withDocument(out);
  });
}

ActionPlan OwnerActionHandlers::environmentShow(const ActionArguments& arguments, ActionCall&) {
  return answer([this, project = projectNamed(arguments)] {
    const auto records = ports_.vault.records();
    base::JsonWriter out;
    out.beginObject();
    writeFields(out, project);
    out.key("bindings").beginArray();
    for (const EnvBinding& binding : project.bindings) {
      const vault::Secret* const secret = records->secretById(binding.secretId);
      const std::string problem = problemOf(binding, secret);
      out.beginObject().field("envVarName", binding.envVarName).field("secretId", binding.secretId);
      if (binding.pinVersion) out.key("pinVersion").integer(*binding.pinVersion);
      out.key("allowsRunControl").boolean(binding.allowsRunControl.value_or(false));
      if (secret != nullptr) {
        out.field("secret", secret->name).key("version").integer(binding.pinVersion.value_or(secret->currentVersion));
      }
      if (!problem.empty()) out.field("problem", problem);
      out.endObject();
    }
    out.endArray().endObject();
    return withDocument(out);
  });
}

ActionPlan OwnerActionHandlers::environmentAdd(const ActionArguments& arguments, ActionCall& call) {
  vault::NewEnvironment environment{arguments.text("name").value_or(""), arguments.text("description").value_or(""),
                                    arguments.clearable("folder").value_or(std::nullopt),
                                    targetNamed(arguments.text("target").value_or(""))};
  return answer([this, environment, access = access(call, arguments)] {
    const Project made = ports_.vault.createEnvironment(environment);
    ports_.vault.log(access, made.id);
    return withValue(base::SecretText(made.id));
  });
}

ActionPlan OwnerActionHandlers::environmentEdit(const ActionArguments& arguments, ActionCall&) {
  const vault::EnvironmentEdit edit{arguments.text("description"), arguments.clearable("folder")};
  if (!edit.description && !edit.rootPath)
    throw ActionError("environmentEdit needs something to change. Nothing was changed.");
  return answer([this, id = projectNamed(arguments).id, edit] {
    ports_.vault.editEnvironment(id, edit);
    return done();
  });
}

ActionPlan OwnerActionHandlers::environmentBind(const ActionArguments& arguments, ActionCall& call) {
  const Project project = projectNamed(arguments);
  const vault::Secret secret = secretNamed(arguments, "secret");
  EnvBinding binding{arguments.need("variable"), secret.id, arguments.integer("pin"), arguments.boolean("runControl")};
  if (!vault::isVariableName(binding.envVarName)) {
    throw ActionError("Use letters, digits and underscores; start with a letter or underscore.");
  }
  if (binding.pinVersion && *binding.pinVersion < 1) {
    throw ActionError("Version must be a positive whole number, or blank for current.");
  }
  if (binding.pinVersion && secret.find(*binding.pinVersion) == nullptr) throw ActionError("Choose a valid version.");
  if (binding.allowsRunControl == false) binding.allowsRunControl.reset();
  std::vector<std::string> details;
  if (const EnvBinding* const before = project.find(binding.envVarName)) {
    const auto records = ports_.vault.records();
    const vault::Secret* const old = records->secretById(before->secretId);
    details.push_back("It replaces the binding to " +
                      (old ? old->name : std::string("a secret that no longer exists")) +
                      " and ends this environment's task sessions.");
  }
  if (binding.allowsRunControl.value_or(false) && vault::isRunControlName(binding.envVarName)) {
    details.push_back("A variable of this name changes how programs start, and commands will get it.");
  }
  return asking(
      call,
      "bind a secret to a variable. Environment: " + project.name + ". Variable: " + binding.envVarName +
          ". Secret: " + secret.name,
      [this, id = project.id, binding, access = access(call, arguments)] {
        ports_.vault.bind(id, binding);
        ports_.vault.log(access, id);
        return done();
      },
      std::move(details));
}

ActionPlan OwnerActionHandlers::environmentUnbind(const ActionArguments& arguments, ActionCall& call) {
  const Project project = projectNamed(arguments);
  const std::string variable = bindingOf(project, arguments.need("variable")).envVarName;
  return asking(call,
                "remove a binding and end task sessions. Environment: " + project.name + ". Variable: " + variable,
                [this, id = project.id, variable, access = access(call, arguments)] {
                  ports_.vault.unbind(id, variable);
                  ports_.vault.log(access, id);
                  return done();
                });
}

ActionPlan OwnerActionHandlers::environmentMove(const ActionArguments& arguments, ActionCall&) {
  const Project project = projectNamed(arguments);
  const std::string variable = bindingOf(project, arguments.need("variable")).envVarName;
  const std::int64_t position = arguments.needInteger("position");
  if (position < 1) throw ActionError("Choose a position from 1. Nothing was changed.");
  return answer([this, id = project.id, variable, position] {
    ports_.vault.moveBinding(id, variable, static_cast<std::size_t>(position - 1));
    return done();
  });
}

ActionPlan OwnerActionHandlers::environmentTarget(const ActionArguments& arguments, ActionCall& call) {
  const Project project = projectNamed(arguments);
  const auto word = arguments.text("target");
  if (!word) throw ActionError("environmentTarget needs target. Nothing was changed or shared.");
  const auto target = targetNamed(*word);
  return asking(call, "change the deployment target of " + project.name + ". New target: " + target.value_or("none"),
                [this, id = project.id, target, access = access(call, arguments)] {
                  ports_.vault.setTarget(id, target);
                  ports_.vault.log(access, id);
                  return done();
                },
                {"This will set an environment's deployment target and end that environment's task sessions."});
}

ActionPlan OwnerActionHandlers::environmentRename(const ActionArguments& arguments, ActionCall& call) {
  const Project project = projectNamed(arguments);
  const std::string name = arguments.need("newName");
  requireFreeName(*ports_.vault.records(), name, project.id);
  return asking(call, "rename an environment. Environment: " + project.name + ". New name: " + name,
                [this, id = project.id, name, access = access(call, arguments)] {
                  const std::string from = presentName(*ports_.vault.records(), id);
                  requireFreeName(*ports_.vault.records(), name, id);
                  // Agent connections first: one scoped to a name that nothing bears yet sees nothing.
                  ports_.grants.environmentRenamed(from, name);
                  try {
                    ports_.vault.renameEnvironment(id, name);
                  } catch (const base::Error&) {
                    ports_.grants.environmentRenamed(name, from);
                    throw;
                  }
                  ports_.vault.log(access, id);
                  return done();
                },
                {"Agent connections limited to it keep it under its new name. Its task sessions end."});
}

ActionPlan OwnerActionHandlers::environmentRemove(const ActionArguments& arguments, ActionCall& call) {
  const Project project = projectNamed(arguments);
  return asking(call, "delete an environment and end task sessions. Environment: " + project.name,
                [this, id = project.id, access = access(call, arguments)] {
                  ports_.grants.environmentRemoved(presentName(*ports_.vault.records(), id));
                  ports_.vault.deleteEnvironment(id);
                  ports_.vault.log(access, id);
                  return done();
                },
                {"Its secrets stay."});
}

}  // namespace sorvane::agent
