#pragma once

#include <string>
#include <vector>

#include "approver/records.h"

namespace sorvane::approver {

/// Question is one request of the computer, with what an answer to it needs and what a person is shown of it.
struct Question {
  FromComputer kind = FromComputer::approvalRequest;  ///< which of the three requests it is
  std::string id;
  Challenge nonce{};
  crypto::Sha256Digest digest{};
  base::Date expiresAt;
  std::string macName;
  /// As they came: whoever shows them escapes them.
  struct Line {
    std::string name, text;
  };
  std::string what;  ///< words of this program's own
  std::vector<Line> lines;
};

Question questionOf(const ApprovalRequest& request);
Question questionOf(const KeyApprovalAsk& ask);
Question questionOf(const ApproverRegisterAsk& ask);

/// The question for a terminal that is `width` columns wide: no byte of the computer's can move the cursor, and nothing
/// is left out. Ends with a line feed; what to type stands elsewhere.
std::string shownText(const Question& question, std::size_t width);

}  // namespace sorvane::approver
