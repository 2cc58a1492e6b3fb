#include "platform/macos/owner_check_rules.h"

#include <algorithm>
#include <array>

#include "base/unicode.h"

namespace sorvane::platform {

using unlock::OwnerPresence;
using Failed = OwnerPresence::Failed;

namespace {

// LAError.h
constexpr long kUserCancel = -2, kBiometryNotAvailable = -6, kBiometryNotEnrolled = -7, kBiometryLockedOut = -8,
               kWatchNotAvailable = -11, kBiometryNotPaired = -12, kBiometryDisconnected = -13;

constexpr std::string_view kNothingToUse =
    "There is no finger enrolled and no watch in reach. Use the password, or add one of them in System Settings.";

struct Advice {
  long code;
  std::string_view sentence;
};
constexpr std::array kAdvice{
    Advice{Failed::kSystemCancelled, "Another prompt or the locked screen took its place."},
    Advice{Failed::kNoLoginPassword, "Set one in System Settings > Users & Groups."},
    Advice{kBiometryNotAvailable, kNothingToUse},
    Advice{kBiometryNotEnrolled, kNothingToUse},
    Advice{kBiometryLockedOut, "Touch ID is locked after too many tries. Use the password."},
    Advice{kWatchNotAvailable, kNothingToUse},
    Advice{kBiometryNotPaired, "The keyboard with Touch ID is not paired with this Mac. Use the password."},
    Advice{kBiometryDisconnected, "The keyboard with Touch ID is not connected. Use the password."},
    Advice{Failed::kNotInteractive,
           "sorvaned was started where this Mac shows no prompt, over ssh for example. Start it in your own session."},
};

std::string_view adviceOn(long code) {
  const auto* const found =
      std::find_if(kAdvice.begin(), kAdvice.end(), [&](const Advice& advice) { return advice.code == code; });
  return found == kAdvice.end() ? std::string_view() : found->sentence;
}

}  // namespace

OwnerCheckPlan planOf(OwnerPresence::Check check, OwnerCheckPurpose purpose) {
  using By = OwnerCheckPlan::By;
  if (purpose == OwnerCheckPurpose::approvals) return {.by = By::ownerAuthentication};
  switch (check) {
    case OwnerPresence::Check::any:
      return {.by = By::biometryOrWatch, .fallbackTitle = ""};
    case OwnerPresence::Check::passwordOnly:
      return {.by = By::ownerAuthentication, .fallbackTitle = "Use Password", .looksFirst = true};
    case OwnerPresence::Check::presence:
      break;
  }
  return {.by = By::accessControl};
}

OwnerPresence::Answer answerOf(const OwnerCheckReport& report) {
  if (report.isGranted) return OwnerPresence::Granted{};
  // What this program itself took back never gets here.
  if (report.code == kUserCancel) return OwnerPresence::Cancelled{};
  return Failed{static_cast<int>(report.code), std::string(adviceOn(report.code))};
}

std::optional<std::string> obstacleOf(long code) {
  if (code != Failed::kNoLoginPassword) return std::nullopt;
  return "This Mac has no login password set, so it cannot ask for one. " + std::string(adviceOn(code));
}

std::optional<std::string> promptText(std::string_view reason) {
  std::string text;
  for (std::size_t begin = 0; begin <= reason.size();) {
    const std::size_t end = std::min(reason.find('\n', begin), reason.size());
    if (begin > 0) text += '\n';
    text += base::escapedForDisplay(reason.substr(begin, end - begin));
    begin = end + 1;
  }
  if (text.find_first_not_of(" \n") == std::string::npos || !base::isUtf8(text)) return std::nullopt;
  return text;
}

unlock::Biometry biometryOf(long type) {
  // LABiometryType in LAPublicDefines.h
  switch (type) {
    case 1:
      return unlock::Biometry::touchID;
    case 2:
      return unlock::Biometry::faceID;
    case 4:
      return unlock::Biometry::opticID;
    default:
      return unlock::Biometry::none;
  }
}

}  // namespace sorvane::platform
