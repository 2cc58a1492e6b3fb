#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "proxy/call_plan.h"
#include "proxy/echo_mask.h"
#include "proxy/forward_request.h"
#include "proxy/transport.h"

namespace sorvane::proxy {

/// UpstreamAnswer passes one provider's answer to the client as it arrives: the headers that clients know, the body
/// without the provider's key and without what the meter takes out. It keeps no more than one piece.
class UpstreamAnswer final : public UpstreamReceiver {
 public:
  /// `beforeEnd` runs once the answer is known to be whole and before the client can know it, so that whatever the
  /// client does next meets a settled call.
  UpstreamAnswer(const ProxyForwardRequest& request, AnswerMeter& meter, EchoMask& mask,
                 std::function<void()> beforeEnd);

  bool head(UpstreamHead head) override;
  bool body(std::string_view bytes, UpstreamPiece piece) override;
  void quiet() override;
  /// A stream whose last report of usage went on.
  bool hasEnough() const override;

  /// The transport saw the end of an answer without a last piece.
  void end();
  /// The answer will not come whole. Where the client has nothing yet it gets the refusal; a stream of events that
  /// stands between two gets it as an event; anything else is left unfinished.
  void breakOff(const ProxyRefusal& refusal);

  int status() const { return status_; }
  /// The client has the whole answer.
  bool finished() const { return finished_; }

 private:
  bool begin();
  bool give(std::string_view bytes);
  bool finish();

  const ProxyForwardRequest& request_;
  AnswerMeter& meter_;
  EchoMask& mask_;
  const std::function<void()> beforeEnd_;
  ProxyAnswerHead head_;
  int status_ = 0;
  bool events_ = false;  ///< a stream of events
  bool begun_ = false, ended_ = false, finished_ = false;
  std::string tail_;  ///< the last bytes that the client got, to know where an event ends
  std::string last_;
};

}  // namespace sorvane::proxy
