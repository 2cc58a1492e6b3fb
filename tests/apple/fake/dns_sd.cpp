#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <strings.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <set>

#include "apple/fake/bonjour.h"
#include "base/descriptor.h"
#include "base/mutex.h"

using sorvane::base::Descriptor;
using sorvane::base::Lock;
using sorvane::test::apple::FakeBonjour;

/// A conversation: replies that wait, each with a byte in the pipe. Its writing end is closed when the daemon hangs up.
struct _DNSServiceRef_t {
  _DNSServiceRef_t() {
    std::array<int, 2> both{};
    if (::pipe(both.data()) != 0) std::abort();
    read.reset(both[0]);
    write.reset(both[1]);
  }
  void tell(std::function<void(DNSServiceRef)> reply) {
    replies.push_back(std::move(reply));
    if (::write(write.get(), "r", 1) != 1) std::abort();
  }
  Descriptor read, write;
  std::deque<std::function<void(DNSServiceRef)>> replies;
};

struct FakeBonjour::State {
  mutable sorvane::base::Mutex mutex;
  mutable sorvane::base::Condition changed;
  std::set<DNSServiceRef> live GUARDED_BY(mutex);
  int calls GUARDED_BY(mutex) = 0, replies GUARDED_BY(mutex) = 0, registered GUARDED_BY(mutex) = 0;
  FakeBonjour::Service last GUARDED_BY(mutex);
};

namespace {

FakeBonjour* standIn = nullptr;
FakeBonjour::State* state = nullptr;

void fault(const char* what) {
  std::fprintf(stderr, "dns_sd: %s\n", what);
  std::abort();
}

DNSServiceErrorType outcome() REQUIRES(state->mutex) {
  const int number = ++state->calls;
  return standIn->outcome ? standIn->outcome(number) : kDNSServiceErr_NoError;
}

/// What the caller is given unless the call is to fail.
template <typename Fill>
DNSServiceErrorType begin(DNSServiceRef* place, const Fill& fill) {
  const Lock lock(state->mutex);
  const DNSServiceErrorType error = outcome();
  // A reference that nobody may use or give back.
  *place = reinterpret_cast<DNSServiceRef>(std::uintptr_t{8});
  if (error != kDNSServiceErr_NoError) return error;
  auto* const made = new _DNSServiceRef_t;
  state->live.insert(made);
  *place = made;
  fill(*made);
  return error;
}

std::string nameOf(const char* text) {
  return text == nullptr ? std::string() : std::string(text);
}

}  // namespace

namespace sorvane::test::apple {

FakeBonjour::FakeBonjour() : state_(std::make_unique<State>()) {
  if (standIn != nullptr) fault("two daemons");
  standIn = this;
  state = state_.get();
}

FakeBonjour::~FakeBonjour() {
  {
    const Lock lock(state_->mutex);
    EXPECT_TRUE(state_->live.empty()) << state_->live.size() << " references were not given back";
  }
  standIn = nullptr;
  state = nullptr;
}

int FakeBonjour::calls() const {
  const Lock lock(state_->mutex);
  return state_->calls;
}

bool FakeBonjour::waitForRegistered(int count) const {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  Lock lock(state_->mutex);
  while (state_->registered < count && state_->changed.wait_until(lock.mutex(), end) == std::cv_status::no_timeout) {
  }
  return state_->registered >= count;
}

FakeBonjour::Service FakeBonjour::registered() const {
  const Lock lock(state_->mutex);
  return state_->last;
}

void FakeBonjour::hangUp() {
  const Lock lock(state_->mutex);
  for (DNSServiceRef each : state_->live) each->write.reset();
}

}  // namespace sorvane::test::apple

int DNSServiceRefSockFD(DNSServiceRef service) {
  const Lock lock(state->mutex);
  if (!state->live.contains(service)) fault("asked for the descriptor of no conversation");
  return outcome() == kDNSServiceErr_NoError ? service->read.get() : -1;
}

DNSServiceErrorType DNSServiceProcessResult(DNSServiceRef service) {
  std::function<void(DNSServiceRef)> reply;
  {
    const Lock lock(state->mutex);
    if (!state->live.contains(service)) fault("processed no conversation");
    const DNSServiceErrorType error = outcome();
    if (error != kDNSServiceErr_NoError) return error;
    char one = 0;
    if (::read(service->read.get(), &one, 1) != 1) return kDNSServiceErr_ServiceNotRunning;
    reply = std::move(service->replies.front());
    service->replies.pop_front();
  }
  reply(service);
  return kDNSServiceErr_NoError;
}

void DNSServiceRefDeallocate(DNSServiceRef service) {
  const Lock lock(state->mutex);
  if (state->live.erase(service) != 1) fault("gave back what it had not");
  delete service;
}

DNSServiceErrorType DNSServiceRegister(DNSServiceRef* service, DNSServiceFlags, uint32_t interfaceIndex,
                                       const char* name, const char* type, const char* domain, const char*,
                                       uint16_t port, uint16_t textSize, const void* text,
                                       DNSServiceRegisterReply reply, void* context) {
  const std::string text_(static_cast<const char*>(text), textSize);
  FakeBonjour::Service given{nameOf(name) + "." + nameOf(type) + nameOf(domain), interfaceIndex, ntohs(port), text_};
  return begin(service, [&](_DNSServiceRef_t& made) {
    made.tell([reply, context, given](DNSServiceRef self) {
      DNSServiceErrorType error = kDNSServiceErr_NoError;
      {
        const Lock lock(state->mutex);
        const int number = ++state->replies;
        if (standIn->reply) error = standIn->reply(number);
      }
      reply(self, kDNSServiceFlagsAdd, error, given.name.c_str(), "", "local.", context);
      const Lock lock(state->mutex);
      if (error != kDNSServiceErr_NoError) return;
      ++state->registered;
      state->last = given;
      state->changed.notify_all();
    });
  });
}

DNSServiceErrorType DNSServiceBrowse(DNSServiceRef* service, DNSServiceFlags, uint32_t, const char* type, const char*,
                                     DNSServiceBrowseReply reply, void* context) {
  return begin(service, [&](_DNSServiceRef_t& made) {
    for (const auto& each : standIn->services) {
      made.tell([=](DNSServiceRef self) {
        const DNSServiceFlags flags = each.isRemoved ? 0 : kDNSServiceFlagsAdd;
        reply(self, flags, each.interface, kDNSServiceErr_NoError, each.name.c_str(), type, "local.", context);
      });
    }
  });
}

DNSServiceErrorType DNSServiceResolve(DNSServiceRef* service, DNSServiceFlags, uint32_t interfaceIndex,
                                      const char* name, const char*, const char*, DNSServiceResolveReply reply,
                                      void* context) {
  return begin(service, [&](_DNSServiceRef_t& made) {
    for (const auto& each : standIn->services) {
      if (each.name != name || each.interface != interfaceIndex) continue;
      made.tell([=](DNSServiceRef self) {
        reply(self, 0, each.interface, kDNSServiceErr_NoError, "", each.name.c_str(), htons(each.port),
              static_cast<uint16_t>(each.text.size()), reinterpret_cast<const unsigned char*>(each.text.data()),
              context);
      });
    }
  });
}

DNSServiceErrorType DNSServiceQueryRecord(DNSServiceRef* service, DNSServiceFlags, uint32_t interfaceIndex,
                                          const char* fullName, uint16_t recordType, uint16_t recordClass,
                                          DNSServiceQueryRecordReply reply, void* context) {
  return begin(service, [&](_DNSServiceRef_t& made) {
    for (const auto& each : standIn->services) {
      if (each.name != fullName || each.interface != interfaceIndex) continue;
      for (const auto& address : each.addresses) {
        if (address.type != recordType) continue;
        made.tell([=](DNSServiceRef self) {
          reply(self, kDNSServiceFlagsAdd, each.interface, kDNSServiceErr_NoError, "", recordType, recordClass,
                static_cast<uint16_t>(address.data.size()), address.data.data(), 120, context);
        });
      }
    }
  });
}

// The text records: the bytes stand in a string, to which the opaque record points.

void TXTRecordCreate(TXTRecordRef* record, uint16_t, void*) {
  record->ForceNaturalAlignment = reinterpret_cast<char*>(new std::string);
}

static std::string& bytesOf(const TXTRecordRef* record) {
  return *reinterpret_cast<std::string*>(record->ForceNaturalAlignment);
}

void TXTRecordDeallocate(TXTRecordRef* record) {
  delete &bytesOf(record);
}

DNSServiceErrorType TXTRecordSetValue(TXTRecordRef* record, const char* key, uint8_t valueSize, const void* value) {
  std::string entry = key;
  if (value != nullptr) entry += '=' + std::string(static_cast<const char*>(value), valueSize);
  if (entry.size() > 255) return kDNSServiceErr_Invalid;
  bytesOf(record) += static_cast<char>(entry.size()) + entry;
  return kDNSServiceErr_NoError;
}

uint16_t TXTRecordGetLength(const TXTRecordRef* record) {
  return static_cast<uint16_t>(bytesOf(record).size());
}
const void* TXTRecordGetBytesPtr(const TXTRecordRef* record) {
  return bytesOf(record).data();
}

const void* TXTRecordGetValuePtr(uint16_t textSize, const void* text, const char* key, uint8_t* valueSize) {
  const std::string prefix = std::string(key) + '=';
  const auto* at = static_cast<const char*>(text);
  for (const char* const end = at + textSize; at != end;) {
    const auto size = static_cast<std::size_t>(static_cast<unsigned char>(*at++));
    if (size > static_cast<std::size_t>(end - at)) break;
    if (size >= prefix.size() && ::strncasecmp(at, prefix.c_str(), prefix.size()) == 0) {
      *valueSize = static_cast<uint8_t>(size - prefix.size());
      return at + prefix.size();
    }
    at += size;
  }
  return nullptr;
}
