#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "agent/client.h"
#include "base/descriptor.h"
#include "base/support_folder.h"
#include "base/unicode.h"
#include "cli/commands.h"
#include "cli/lock_link.h"
#include "cli/mcp_server.h"

namespace sorvane::cli {
namespace {

constexpr char kTokenVariable[] = "SORVANE_MCP_TOKEN";
constexpr char kRevealVariable[] = "SORVANE_MCP_ALLOW_REVEAL";
constexpr std::size_t kMaxTokenBytes = 512;

Failure notConnected(const std::string& what) {
  return {kConfiguration, "not_connected",
          what +
              " No agent was connected and nothing was shared. Run sorvane agent connect CLIENT, for example sorvane "
              "agent connect claude-code, then restart the agent."};
}

bool isUuid(std::string_view text) {
  constexpr std::string_view form = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
  if (text.size() != form.size()) return false;
  for (std::size_t i = 0; i < form.size(); ++i) {
    const bool hexadecimal = std::strchr("0123456789abcdefABCDEF", text[i]) != nullptr && text[i] != '\0';
    if (form[i] == '-' ? text[i] != '-' : !hexadecimal) return false;
  }
  return true;
}

/// The token that `sorvane agent connect --project` keeps for a grant: in a file of this user that nobody else can
/// read.
base::SecretText tokenOfGrant(const std::filesystem::path& supportFolder, const std::string& grant) {
  if (!isUuid(grant)) throw notConnected("--grant needs the id of a connection, which is a UUID.");
  const auto path = supportFolder / "clients" / (grant + ".token");
  const base::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) {
    throw notConnected("The token file " + path.string() + " cannot be read.");
  }
  if (!S_ISREG(status.st_mode) || status.st_uid != ::geteuid() || (status.st_mode & 07777) != 0600) {
    throw notConnected("The token file " + path.string() +
                       " is not a plain file of this user with mode 0600, so it was not used.");
  }
  std::array<char, kMaxTokenBytes> bytes;
  const ssize_t got = ::read(file.get(), bytes.data(), bytes.size());
  base::SecretText token(base::trimmed({bytes.data(), got > 0 ? static_cast<std::size_t>(got) : 0}));
  base::wipe(bytes.data(), bytes.size());
  if (token.empty()) throw notConnected("The token file " + path.string() + " is empty.");
  return token;
}

base::SecretText tokenOfEnvironment() {
  char* const text = std::getenv(kTokenVariable);
  base::SecretText token(base::trimmed(text == nullptr ? "" : text));
  if (text != nullptr) base::wipe(text, std::strlen(text));
  if (token.empty()) throw notConnected(std::string(kTokenVariable) + " is not set.");
  return token;
}

mcp::Reveal revealOffered() {
  const char* const text = std::getenv(kRevealVariable);
  const std::string_view word = text == nullptr ? "" : text;
  return word == "1" || word == "true" ? mcp::Reveal::offered : mcp::Reveal::hidden;
}

/// The client is gone when nothing can be written to it; the sockets that the system closes withdraw what was asked.
void writeLine(std::string_view line) {
  while (!line.empty()) {
    const ssize_t written = ::write(STDOUT_FILENO, line.data(), line.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) ::_exit(0);
    line.remove_prefix(static_cast<std::size_t>(written));
  }
}

void serve(mcp::McpServer& server) {
  mcp::LineDecoder lines;
  std::array<char, 65536> buffer;
  for (;;) {
    const ssize_t got = ::read(STDIN_FILENO, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    std::string_view bytes(buffer.data(), static_cast<std::size_t>(got));
    while (!bytes.empty()) {
      if (const auto line = lines.take(bytes)) server.handle(*line);
    }
    base::wipe(buffer.data(), static_cast<std::size_t>(got));
  }
}

/// Read anew for each call: the socket changes when sorvaned starts again.
std::string socketIn(const std::filesystem::path& supportFolder) {
  try {
    base::checkSupportFolder(supportFolder, base::WhenMissing::refuse);
  } catch (const base::SupportFolderError& error) {
    throw agent::ClientError(agent::ClientError::Case::unavailable, error.sentence());
  }
  return agent::readEndpoint(supportFolder).socketPath;
}

int runServer(Session& session, const std::string& grant) {
  ::signal(SIGPIPE, SIG_IGN);
  const auto folder = base::supportFolder(session.options().supportFolder);
  const base::SecretText token = grant.empty() ? tokenOfEnvironment() : tokenOfGrant(folder, grant);
  mcp::McpServer::Settings settings;
  settings.version = SORVANE_VERSION;
  settings.reveal = revealOffered();
  const auto exchange = [&folder, &token](agent::AgentRequest request, const std::stop_token& withdrawal) {
    request.token = token.clone();
    try {
      return agent::exchange(socketIn(folder), request, withdrawal);
    } catch (const agent::ClientError& error) {
      const bool gone = error.kind() == agent::ClientError::Case::unavailable;
      const auto closed = gone ? whyClosed(folder) : std::nullopt;
      if (!closed) throw;
      return agent::AgentResponse::refused(closed->sentence, closed->code);
    }
  };
  mcp::McpServer server(std::move(settings), exchange, writeLine);
  serve(server);
  return 0;
}

}  // namespace

void Commands::addMcp(CLI::App& app) {
  const auto grant = std::make_shared<std::string>();
  CLI::App& command = *app.add_subcommand(
      "mcp",
      "Serve an agent: the model-context-protocol on standard input and output.\n"
      "The agent's own configuration starts this; sorvane agent connect writes it. The token of its connection is in\n"
      "SORVANE_MCP_TOKEN, or in the support folder under the id that --grant names.");
  command.add_option("--grant", *grant, "Id of the connection whose token the support folder keeps");
  command.callback([this, grant] {
    // Standard output belongs to the protocol: a refusal goes to standard error alone.
    options.json = false;
    action = [grant](Session& session) { return runServer(session, *grant); };
  });
}

}  // namespace sorvane::cli
