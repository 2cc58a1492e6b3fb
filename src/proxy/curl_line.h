#pragma once

#include <memory>
#include <string>

#include "proxy/curl_shared.h"
#include "proxy/transport.h"
#include "proxy/upstream_chunks.h"
#include "proxy/upstream_head.h"

namespace sorvane::proxy {

/// CurlLine is one connection to a provider with the handles that drive it. It carries one call at a time, for one
/// thread at a time, and keeps the connection for the next.
class CurlLine {
 public:
  /// Throws std::bad_alloc.
  explicit CurlLine(std::shared_ptr<const CurlShared> shared);
  ~CurlLine();
  CurlLine(const CurlLine&) = delete;
  CurlLine& operator=(const CurlLine&) = delete;

  UpstreamResult run(const UpstreamRequest& request, UpstreamReceiver& receiver, const UpstreamWatch& watch);
  /// False once the connection is in a state that another call must not meet.
  bool reusable() const { return reusable_; }
  const CurlShared* shared() const { return shared_.get(); }

 private:
  struct FreeEasy {
    void operator()(void* easy) const;
  };
  struct FreeMulti {
    void operator()(void* multi) const;
  };
  /// What became of a call that this side ended.
  enum class Ended { no, badAnswer, redirected, byReceiver, stopped, hungUp, resend };
  struct Call;
  struct Callbacks;  // what curl calls back

  void setUp();
  void setUpTrust();
  bool prepare(const UpstreamRequest& request, Call& call);
  void drive(Call& call, const UpstreamWatch& watch);
  void wait(Call& call, const UpstreamWatch& watch);
  void lookAtClient(Call& call, int client);
  UpstreamResult outcome(Call& call) const;
  bool anySent(const Call& call) const;
  long sentBytes() const;

  bool maySend();
  bool takeLine(std::string_view line);
  bool takeHead();
  bool takeBody(std::string_view bytes);

  // Constant after construction. The connection lives in the multi handle; the easy handle goes first.
  const std::shared_ptr<const CurlShared> shared_;
  std::unique_ptr<void, FreeMulti> multi_;
  std::unique_ptr<void, FreeEasy> easy_;
  // The call's own.
  Call* call_ = nullptr;
  std::string plain_;  ///< chunks without their framing; kept for its room
  bool reusable_ = true;
};

}  // namespace sorvane::proxy
