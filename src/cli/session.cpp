#include "cli/session.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <nlohmann/json.hpp>
#include <thread>

#include "base/json_writer.h"
#include "cli/interrupt.h"
#include "cli/lock_link.h"

namespace sorvane::cli {
namespace {

using namespace std::chrono_literals;

constexpr auto kPollJobs = 150ms;

int exitCodeOf(const agent::AgentResponse& response) {
  const std::string& sentence = response.error.value_or("");
  if (sentence == "approval denied") return kDenied;
  if (response.errorCode == "unauthorized" || response.errorCode == "environment_not_allowed" ||
      response.errorCode == "deployment_policy_refused") {
    return kDenied;
  }
  for (const char* const passing : {"vault unavailable", "sorvane is still moving", "sorvane is handling"}) {
    if (sentence.starts_with(passing)) return kTryLater;
  }
  return kFailed;
}

std::string codeOf(const agent::AgentResponse& response) {
  if (response.errorCode) return *response.errorCode;
  return response.error == "approval denied" ? "approval_denied" : "refused";
}

agent::AgentRequest requestFor(std::string_view action, Session::Arguments arguments,
                               std::optional<base::SecretText> value) {
  agent::AgentRequest request;
  request.op = agent::AgentOp::manageVault;
  request.payload = std::move(arguments);
  request.payload["action"] = action;
  request.value = std::move(value);
  return request;
}

}  // namespace

Failure failureOf(const agent::ClientError& error) {
  const bool gone = error.kind() == agent::ClientError::Case::unavailable;
  return {gone ? kNotRunning : kFailed, gone ? "not_running" : "bad_answer", error.sentence()};
}

Failure failureOf(const base::SupportFolderError& error) {
  const bool missing = error.sentence().starts_with("There is no support folder");
  return {missing ? kNotRunning : kConfiguration, missing ? "not_running" : "support_folder", error.sentence()};
}

bool drawsProgress() {
  return ::isatty(STDERR_FILENO) != 0;
}

void drawProgress(std::string_view kind, std::int64_t done, std::int64_t total) {
  if (!drawsProgress()) return;
  std::fprintf(stderr, "\r%.*s: %lld of %lld", static_cast<int>(kind.size()), kind.data(), static_cast<long long>(done),
               static_cast<long long>(total));
}

Failure notUnderstood() {
  return {kFailed, "bad_answer", "sorvaned sent an answer that this program does not understand."};
}

const base::SecretText& valueOf(const agent::AgentResponse& response) {
  if (!response.value) throw notUnderstood();
  return *response.value;
}

std::string listArgument(const std::vector<std::string>& items) {
  base::JsonWriter out;
  out.beginArray();
  for (const std::string& item : items) out.string(item);
  out.endArray();
  return std::string(out.view());
}

agent::AgentResponse Session::send(agent::AgentRequest request, bool asks, const std::stop_token& withdrawal) {
  try {
    if (!endpoint_) {
      const auto folder = base::supportFolder(options_.supportFolder);
      base::checkSupportFolder(folder, base::WhenMissing::refuse);
      endpoint_ = agent::readEndpoint(folder);
    }
    request.token = endpoint_->token.clone();
    request.requestor = options_.requestor;
    agent::stateCapabilities(request);
    if (asks && ::isatty(STDERR_FILENO) != 0) {
      std::fputs("Waiting for the owner's answer where sorvaned runs (Ctrl-C withdraws it) …\n", stderr);
    }
    agent::AgentResponse response = agent::exchange(endpoint_->socketPath, request, withdrawal);
    if (!response.ok) {
      throw Failure(exitCodeOf(response), codeOf(response),
                    response.error.value_or("sorvaned refused without saying why. Nothing was shared."));
    }
    return response;
  } catch (const agent::ClientError& error) {
    // Without an agent socket it may be locked, which another socket tells.
    const bool gone = error.kind() == agent::ClientError::Case::unavailable;
    const auto closed = gone ? whyClosed(base::supportFolder(options_.supportFolder)) : std::nullopt;
    throw closed ? Failure(kTryLater, closed->code, closed->sentence) : failureOf(error);
  } catch (const base::SupportFolderError& error) {
    throw failureOf(error);
  }
}

agent::AgentResponse Session::manage(std::string_view action, Arguments arguments, Asks asks,
                                     std::optional<base::SecretText> value) {
  return send(requestFor(action, std::move(arguments), std::move(value)), asks == Asks::yes);
}

agent::AgentResponse Session::manageAttended(std::string_view action, Arguments arguments,
                                             std::optional<base::SecretText> value,
                                             const std::function<bool()>& attend) {
  std::stop_source withdrawal;
  auto answer = std::async(
      std::launch::async,
      [this, token = withdrawal.get_token()](agent::AgentRequest request) {
        return send(std::move(request), true, token);
      },
      requestFor(action, std::move(arguments), std::move(value)));
  bool wasAttended = false;
  while (answer.wait_for(kPollJobs) != std::future_status::ready) {
    if (!withdrawal.stop_requested() && !attend()) withdrawal.request_stop();
    wasAttended = true;
  }
  if (wasAttended && drawsProgress()) std::fputc('\n', stderr);
  return answer.get();
}

base::Json Session::read(std::string_view action, Arguments arguments) {
  const agent::AgentResponse response = manage(action, std::move(arguments), Asks::no);
  auto json = response.document ? base::parseJson(response.document->view()) : std::nullopt;
  if (!json || !json->is_object()) throw notUnderstood();
  return std::move(*json);
}

base::Json Session::follow(const agent::AgentResponse& started, const std::function<void()>& between) {
  const std::string jobId(valueOf(started).view());
  const NoteInterrupt note;
  bool cancelled = false;
  for (;;) {
    base::Json job = read("job", {{"id", jobId}});
    drawProgress(job.value("kind", ""), job.value("done", 0LL), job.value("total", 0LL));
    const std::string state = job.value("state", "");
    if (state != "running") {
      if (::isatty(STDERR_FILENO) != 0) std::fputc('\n', stderr);
      if (state == "done") return job.contains("document") ? job["document"] : base::Json();
      throw Failure(kFailed, state == "cancelled" ? "cancelled" : "job_failed", job.value("error", "The work failed."));
    }
    if (between && !wasInterrupted()) between();
    if (wasInterrupted() && !cancelled) {
      cancelled = true;
      manage("jobCancel", {{"id", jobId}}, Asks::no);
    }
    std::this_thread::sleep_for(kPollJobs);
  }
}

}  // namespace sorvane::cli
