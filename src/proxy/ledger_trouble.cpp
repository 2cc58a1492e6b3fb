#include "proxy/ledger_trouble.h"

#include <algorithm>

namespace sorvane::proxy {
namespace {

std::string linesFrom(std::int64_t first, std::int64_t last) {
  return first == last ? "line " + std::to_string(first)
                       : "lines " + std::to_string(first) + " to " + std::to_string(last);
}

std::string sentenceOf(const LedgerBreak& found, std::int64_t dropped) {
  constexpr std::string_view kWhatNow =
      "Do not rely on its totals from there on. Compare them with the provider’s own figures.";
  const std::int64_t first = std::max<std::int64_t>(found.first - dropped, 1), last = found.last - dropped;
  std::string text = "The proxy’s call ledger is not as sorvane wrote it: ";
  if (found.sealGone) {
    text = "The seal of the proxy’s call ledger is gone, so nothing vouches for " + linesFrom(first, last) + ". ";
  } else if (found.missing > 0) {
    text += std::to_string(found.missing) + (found.missing == 1 ? " line is" : " lines are") + " missing, beginning " +
            (first == last ? "with " : "among ") + linesFrom(first, last) + ". ";
  } else {
    text += first == last ? "line " + std::to_string(first) + " was altered, added, removed or moved. "
                          : "among " + linesFrom(first, last) + " something was altered, added, removed or moved. ";
  }
  return text.append(kWhatNow);
}

}  // namespace

std::vector<std::string> sentencesOf(const LedgerTrouble& trouble) {
  std::vector<std::string> sentences;
  for (const LedgerBreak& found : trouble.breaks) {
    if (found.last > trouble.dropped) sentences.push_back(sentenceOf(found, trouble.dropped));
  }
  if (trouble.seal) {
    sentences.push_back(
        "Calls are recorded in the proxy’s call ledger, but its seal is not renewed, so a change to its "
        "last lines would not be noticed. " +
        *trouble.seal);
  }
  if (trouble.file) {
    sentences.push_back("The proxy’s call ledger cannot be written (" + *trouble.file +
                        "). Calls go on and their budgets hold. Check the support folder and the room on its disk.");
  }
  if (trouble.lost > 0) {
    sentences.push_back(std::to_string(trouble.lost) + (trouble.lost == 1 ? " call was" : " calls were") +
                        " not recorded in the proxy’s call ledger, because it could not be written in time. Their "
                        "budgets were charged all the same.");
  }
  return sentences;
}

}  // namespace sorvane::proxy
