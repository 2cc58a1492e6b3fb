#include "vault/credential_test.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <vector>

#include "base/unicode.h"

namespace sorvane::vault {
namespace {

constexpr std::array<std::string_view, 25> kMarkers{"SECRET",
                                                    "TOKEN",
                                                    "PASSWORD",
                                                    "PASSWD",
                                                    "PRIVATE_KEY",
                                                    "API_KEY",
                                                    "APIKEY",
                                                    "ACCESS_KEY",
                                                    "CLIENT_SECRET",
                                                    "AUTH",
                                                    "BEARER",
                                                    "CREDENTIAL",
                                                    "DSN",
                                                    "SERVICE_ROLE",
                                                    "ANON_KEY",
                                                    "SIGNING",
                                                    "WEBHOOK_SECRET",
                                                    "SESSION_SECRET",
                                                    "ENCRYPTION_KEY",
                                                    "_KEY",
                                                    "COOKIE",
                                                    "SALT",
                                                    "PASSPHRASE",
                                                    "_PAT",
                                                    "_PW"};
constexpr std::array<std::string_view, 18> kPrefixes{"sk-",         "sk_",   "pk_",   "rk_",  "ghp_",   "gho_",
                                                     "github_pat_", "xoxb-", "xoxp-", "eyJ",  "re_",    "SG.",
                                                     "whsec_",      "AKIA",  "AIza",  "phc_", "shpat_", "glpat-"};
constexpr std::array<std::string_view, 11> kPlaceholders{"changeme",      "change_me",     "placeholder", "todo",
                                                         "your_key_here", "your-key-here", "replace_me",  "replace-me",
                                                         "example",       "none",          "null"};

/// Shortest value that the shape alone gives away.
constexpr std::size_t kShortestShape = 24;
/// Shortest value without a name that a known beginning gives away.
constexpr std::size_t kShortestPrefixed = 20;

struct Kind {
  std::string_view prefix, words, name;
};
// The longer beginnings stand before the shorter ones that they begin with.
constexpr std::array kKinds{Kind{"sk-ant-", "Anthropic key", "ANTHROPIC_API_KEY"},
                            Kind{"sk-or-", "OpenRouter key", "OPENROUTER_API_KEY"},
                            Kind{"sk-", "OpenAI key", "OPENAI_API_KEY"},
                            Kind{"github_pat_", "GitHub token", "GITHUB_TOKEN"},
                            Kind{"ghp_", "GitHub token", "GITHUB_TOKEN"},
                            Kind{"gho_", "GitHub token", "GITHUB_TOKEN"},
                            Kind{"ghu_", "GitHub token", "GITHUB_TOKEN"},
                            Kind{"ghs_", "GitHub token", "GITHUB_TOKEN"},
                            Kind{"ghr_", "GitHub token", "GITHUB_TOKEN"},
                            Kind{"npm_", "npm token", "NPM_TOKEN"},
                            Kind{"hf_", "Hugging Face token", "HF_TOKEN"},
                            Kind{"ASIA", "AWS access key", "AWS_ACCESS_KEY_ID"},
                            Kind{"glpat-", "GitLab token", "GITLAB_TOKEN"},
                            Kind{"gldt-", "GitLab token", "GITLAB_TOKEN"},
                            Kind{"glrt-", "GitLab token", "GITLAB_TOKEN"},
                            Kind{"glft-", "GitLab token", "GITLAB_TOKEN"},
                            Kind{"xapp-", "Slack token", "SLACK_APP_TOKEN"},
                            Kind{"dop_v1_", "DigitalOcean token", "DIGITALOCEAN_TOKEN"},
                            Kind{"doo_v1_", "DigitalOcean token", "DIGITALOCEAN_TOKEN"},
                            Kind{"rubygems_", "RubyGems key", "GEM_HOST_API_KEY"},
                            Kind{"sk_", "Stripe key", "STRIPE_SECRET_KEY"},
                            Kind{"rk_", "Stripe key", "STRIPE_RESTRICTED_KEY"},
                            Kind{"pk_", "Stripe key", "STRIPE_PUBLISHABLE_KEY"},
                            Kind{"whsec_", "webhook secret", "WEBHOOK_SECRET"},
                            Kind{"xoxb-", "Slack token", "SLACK_BOT_TOKEN"},
                            Kind{"xoxp-", "Slack token", "SLACK_USER_TOKEN"},
                            Kind{"AKIA", "AWS access key", "AWS_ACCESS_KEY_ID"},
                            Kind{"AIza", "Google key", "GOOGLE_API_KEY"},
                            Kind{"SG.", "SendGrid key", "SENDGRID_API_KEY"},
                            Kind{"re_", "Resend key", "RESEND_API_KEY"},
                            Kind{"phc_", "PostHog key", "POSTHOG_API_KEY"},
                            Kind{"shpat_", "Shopify token", "SHOPIFY_ACCESS_TOKEN"},
                            Kind{"eyJ", "JSON web token", ""}};

std::string mapped(std::string_view text, int (*to)(int)) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [&](char c) { return static_cast<char>(to(static_cast<unsigned char>(c))); });
  return out;
}

template <typename List>
bool beginsWithOne(std::string_view text, const List& prefixes) {
  return std::any_of(prefixes.begin(), prefixes.end(), [&](std::string_view p) { return text.starts_with(p); });
}

/// "://" user ":" password "@", none of them empty or with a blank.
bool holdsPassword(std::string_view value) {
  for (std::size_t at = value.find("://"); at != std::string_view::npos; at = value.find("://", at + 1)) {
    const std::size_t from = at + 3;
    const std::size_t stop = std::min(value.find_first_of("/@ \t\r\n", from), value.size());
    if (stop == value.size() || value[stop] != '@') continue;
    const std::size_t colon = value.substr(0, stop).find(':', from);
    if (colon != std::string_view::npos && colon > from && colon + 1 < stop) return true;
  }
  return false;
}

bool isFilePath(std::string_view value) {
  return value.starts_with('/') && std::count(value.begin(), value.end(), '/') > 1 &&
         value.find_first_of("=+") == std::string_view::npos;
}

bool isShapeCharacter(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || std::string_view("_-./+=").find(c) != std::string_view::npos;
}

bool hasShape(std::string_view value) {
  return value.size() >= kShortestShape && !value.starts_with("http") &&
         std::all_of(value.begin(), value.end(), isShapeCharacter);
}

/// A run of letters and digits as chance makes it: long, mixed, and not all hexadecimal in one case, since digests and
/// commit ids are.
bool isRandomRun(std::string_view run) {
  constexpr std::size_t kShortestRun = 16;
  std::size_t digits = 0, uppers = 0, lowers = 0, beyondHex = 0;
  for (const char c : run) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isdigit(byte)) ++digits;
    if (std::isupper(byte)) ++uppers;
    if (std::islower(byte)) ++lowers;
    if (!std::isxdigit(byte)) ++beyondHex;
  }
  return run.size() >= kShortestRun && digits >= 2 && uppers + lowers >= 4 &&
         (beyondHex > 0 || (uppers > 0 && lowers > 0));
}

/// Whether some part of the value between separators looks random: words, versions, UUIDs and paths have none such.
bool looksRandom(std::string_view value) {
  while (!value.empty()) {
    const std::size_t end = std::min(value.find_first_of("-._/"), value.size());
    if (isRandomRun(value.substr(0, end))) return true;
    value.remove_prefix(std::min(end + 1, value.size()));
  }
  return false;
}

/// A known beginning with a body behind it. What merely begins so is words between separators, without a digit.
bool isPrefixedKey(std::string_view value) {
  const auto kind =
      std::find_if(kKinds.begin(), kKinds.end(), [&](const Kind& each) { return value.starts_with(each.prefix); });
  if (kind == kKinds.end() || value.size() < kShortestPrefixed) return false;
  const std::string_view body = value.substr(kind->prefix.size());
  const bool words = body.find_first_of("0123456789") == std::string_view::npos &&
                     body.find_first_of("-_./") != std::string_view::npos;
  return !words && std::all_of(body.begin(), body.end(), isShapeCharacter);
}

bool isPrivateKey(std::string_view value) {
  return value.starts_with("-----BEGIN ") && value.find("PRIVATE KEY-----") != std::string_view::npos;
}

}  // namespace

bool isPlaceholder(std::string_view value) {
  const std::string_view text = base::trimmed(value);
  if (text.starts_with('<') && text.ends_with('>') && text.size() > 1) return true;
  if (!text.empty() && text.find_first_not_of("xX") == std::string_view::npos) return true;
  const std::string lower = mapped(text, std::tolower);
  return std::find(kPlaceholders.begin(), kPlaceholders.end(), lower) != kPlaceholders.end() ||
         lower.starts_with("your_") || lower.starts_with("your-");
}

bool isCredential(std::string_view key, std::string_view given) {
  const std::string_view value = base::trimmed(given);
  if (value.empty()) return false;
  const std::string name = mapped(key, std::toupper);
  if (name == "SSH_AUTH_SOCK") return false;
  if (holdsPassword(value)) return true;
  if (isFilePath(value)) return false;
  const bool marked = std::any_of(kMarkers.begin(), kMarkers.end(),
                                  [&](std::string_view marker) { return name.find(marker) != std::string::npos; });
  return marked || beginsWithOne(value, kPrefixes) || hasShape(value);
}

bool looksLikeCredential(std::string_view given) {
  const std::string_view value = base::trimmed(given);
  if (isPrivateKey(value)) return true;
  if (value.find_first_of(" \t\r\n") != std::string_view::npos || isPlaceholder(value)) return false;
  if (value.find("${") != std::string_view::npos || value.find("EXAMPLE") != std::string_view::npos) return false;
  if (holdsPassword(value)) return true;
  return isPrefixedKey(value) || (hasShape(value) && !isFilePath(value) && looksRandom(value));
}

std::string_view kindOf(std::string_view given) {
  const std::string_view value = base::trimmed(given);
  for (const Kind& kind : kKinds) {
    if (value.starts_with(kind.prefix)) return kind.words;
  }
  if (isPrivateKey(value)) return "private key";
  return holdsPassword(value) ? "connection string" : "secret";
}

std::string suggestedName(std::string_view given) {
  const std::string_view value = base::trimmed(given);
  for (const Kind& kind : kKinds) {
    if (value.starts_with(kind.prefix)) return std::string(kind.name);
  }
  return holdsPassword(value) ? "DATABASE_URL" : "";
}

std::string maskedEdges(std::string_view value) {
  constexpr std::size_t kShownFrom = 12, kFirst = 3, kLast = 2;
  constexpr std::string_view kDots = "......";
  std::vector<std::size_t> starts;
  for (std::size_t at = 0; at < value.size(); at += base::decodeUtf8(value.substr(at)).size) starts.push_back(at);
  if (starts.size() < kShownFrom) return std::string(kDots);
  std::string shown(value.substr(0, starts[kFirst]));
  shown.append(kDots).append(value.substr(starts[starts.size() - kLast]));
  return base::escapedForDisplay(shown);
}

}  // namespace sorvane::vault
