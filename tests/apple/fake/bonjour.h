#pragma once

#include <dns_sd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace sorvane::test::apple {

/// FakeBonjour is the Bonjour daemon of this test program while it lives: it tells of `services`, and takes what is
/// registered. At the end of its life every reference must have been given back; one that is given back twice ends the
/// test program. One at a time.
class FakeBonjour {
 public:
  FakeBonjour();
  /// Fails the test when a reference is left.
  ~FakeBonjour();
  FakeBonjour(const FakeBonjour&) = delete;
  FakeBonjour& operator=(const FakeBonjour&) = delete;

  struct Address {
    std::uint16_t type = kDNSServiceType_A;
    std::string data;
  };
  struct Service {
    std::string name;
    std::uint32_t interface = 1;
    std::uint16_t port = 0;  ///< in this computer's order
    std::string text;        ///< as one resource record
    std::vector<Address> addresses{};
    bool isRemoved = false;  ///< told as one that went
  };
  std::vector<Service> services;

  /// Decides, for the calls of these functions by number from 1, what each returns; DNSServiceRefSockFD returns -1 for
  /// an error. Set before the first call.
  std::function<DNSServiceErrorType(int number)> outcome;
  /// The same for what the reply to a registration says.
  std::function<DNSServiceErrorType(int number)> reply;

  int calls() const;
  /// Waits until as many registrations were answered without an error, or ten seconds; whether they were.
  bool waitForRegistered(int count) const;
  /// Of the last one.
  Service registered() const;
  /// Ends every conversation, as a daemon does that ends.
  void hangUp();

  struct State;

 private:
  const std::unique_ptr<State> state_;
};

}  // namespace sorvane::test::apple
