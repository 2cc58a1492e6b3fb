#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "proxy/answer_meter_scan.h"
#include "proxy/call_plan_terms.h"

namespace sorvane::proxy {

/// The counts of one report; nullopt where it does not say.
using AnswerCounts = std::array<std::optional<std::int64_t>, static_cast<std::size_t>(AnswerSlot::webSearches) + 1>;

/// AnswerReport gathers what an answer tells of its use, document by document: a document counts only once it was read
/// whole, and each figure is the last one told, since providers report totals.
class AnswerReport final : public AnswerSink {
 public:
  explicit AnswerReport(const CallPlan::Terms& terms) : terms_(terms) {}

  /// The paths of the provider's and the operation's own form.
  std::span<const AnswerPath> paths() const;

  /// The answer is a stream of events, each a document.
  void expectEvents() { inEvents_ = true; }
  /// A document was read whole.
  void commit();
  /// The stream's own mark of its end was read.
  void ended();
  /// What it held does not count.
  void discard();
  /// The document holds usage and an empty list of choices, and nothing else of an answer.
  bool isUsageAlone() const { return document_.hasUsage && document_.emptyChoices && !document_.hasError; }
  bool hasChoice() const { return document_.hasChoice; }

  CallCharge charge(int status, CallEnd end) const;

  void scalar(AnswerSlot slot, std::string_view token, bool isString) override;
  void opened(AnswerSlot slot) override;
  void closed(AnswerSlot slot) override;
  void text(std::size_t bytes) override { textBytes_ += static_cast<std::int64_t>(bytes); }

 private:
  struct Document {
    AnswerCounts counts, iteration;
    bool inIteration = false, hasIterations = false;
    std::string iterationType;
    std::vector<AnswerCounts> compactions;
    std::optional<std::int64_t> costNanos, upstreamNanos;
    std::optional<bool> byok;
    std::optional<std::string> type, serviceTier, speed, region;
    std::int64_t stops = 0;  ///< reasons why the model stopped, one for each choice
    bool hasUsage = false, inUsage = false, hasChoice = false, emptyChoices = false, hasError = false;
  };
  void word(AnswerSlot slot, std::string_view token);
  void count(AnswerSlot slot, std::string_view token);
  bool isFinal() const;
  ProxyUsage usageOf(const AnswerCounts& counts) const;
  PriceScale scale() const;
  std::optional<Micros> reportedCost() const;
  CallCharge finalCharge() const;
  CallCharge estimate() const;

  // Constant after construction.
  const CallPlan::Terms& terms_;
  bool inEvents_ = false;
  // Of the document that is being read.
  Document document_;
  // Of all before it.
  Document told_;
  bool finished_ = false;  ///< the provider's last report was read
  std::int64_t textBytes_ = 0;
};

}  // namespace sorvane::proxy
