#include "agent/handlers.h"
#include "base/unicode.h"
#include "vault/credential_test.h"
#include "vault/secret_store.h"

namespace sorvane::agent {
namespace {

constexpr std::string_view kUnavailable = "clipboard_unavailable";
constexpr std::string_view kNoClipboard =
    "This session has no clipboard that sorvaned can use, so nothing was read. Install wl-clipboard or xclip on a "
    "desktop, or ask the owner to run sorvane secret add.";
constexpr std::string_view kChanged =
    "The clipboard changed since it was checked. Check it again and confirm with the user before saving.";
/// Longest name that a capture may give, in bytes.
constexpr std::size_t kMostNameBytes = 200;

AgentResponse unavailable(std::string_view sentence) {
  return AgentResponse::refused(std::string(sentence), std::string(kUnavailable));
}

bool isShortLine(std::string_view name) {
  return !name.empty() && name.size() <= kMostNameBytes && name == base::escapedForDisplay(name);
}

/// The text on the clipboard when it may be a key of somebody else's, or why not.
struct Seen {
  base::SecretText text;
  std::optional<AgentResponse> refusal;
};

Seen look(Clipboard& clipboard, CopiedValue& copied) {
  if (!clipboard.available()) return {{}, unavailable(kNoClipboard)};
  auto read = clipboard.read();
  if (!read) return {{}, unavailable("The clipboard has no text.")};
  base::SecretText text(base::trimmed(read->view()));
  if (text.empty()) return {{}, unavailable("The clipboard has no text.")};
  if (text.size() > vault::kMaxValueBytes) {
    return {{}, unavailable("The clipboard text is too large to be a key (over 4 KB).")};
  }
  if (copied.isOurs(*read)) {
    return {{}, unavailable("The clipboard holds a value sorvane itself copied; it is already in the vault.")};
  }
  if (!vault::looksLikeCredential(text.view())) {
    return {{}, unavailable("Nothing credential-shaped is on the clipboard.")};
  }
  return {std::move(text), {}};
}

}  // namespace

AgentResponse Handlers::peekClipboard(Call& call) {
  Seen seen = look(ports_.clipboard, ports_.copied);
  if (seen.refusal) return std::move(*seen.refusal);
  ClipboardPeek peek;
  peek.detected = true;
  peek.kind = std::string(vault::kindOf(seen.text.view()));
  if (std::string name = vault::suggestedName(seen.text.view()); !name.empty()) peek.suggestedName = std::move(name);
  peek.masked = vault::maskedEdges(seen.text.view());
  peek.fingerprint = call.fingerprint(seen.text);
  peek.note = "Nothing was saved. Show the user this and pass the fingerprint to capture_clipboard.";
  ports_.vault.log(call.access("agent_peek_clipboard"));
  AgentResponse response;
  response.ok = true;
  response.clipboard = std::move(peek);
  return response;
}

AgentResponse Handlers::captureClipboard(Call& call) {
  AgentRequest& request = call.request();
  const std::string name(base::trimmed(request.arg.value_or("")));
  if (!isShortLine(name)) return AgentResponse::refused("captureClipboard needs a short single-line name");
  Seen seen = look(ports_.clipboard, ports_.copied);
  if (seen.refusal) return std::move(*seen.refusal);
  const auto told = request.payload.find("fingerprint");
  const std::string_view confirmed = told != request.payload.end() ? std::string_view(told->second)
                                     : request.value               ? request.value->view()
                                                                   : std::string_view();
  if (confirmed != call.fingerprint(seen.text)) {
    return AgentResponse::refused(std::string(kChanged), "clipboard_changed");
  }
  const std::string kind(vault::kindOf(seen.text.view()));
  const std::string what = "the " + kind + " on your clipboard (" + vault::maskedEdges(seen.text.view()) + ")";
  return capture(call, name, std::move(seen.text), {what, "agent_capture_clipboard"});
}

}  // namespace sorvane::agent
