// Each record of the link to a phone, sealed and opened: what opens is what the reader alone makes of the text, comes
// back the same when it is sealed again, and opens as no other record. The first byte chooses the record.
#include <cstdint>
#include <cstdlib>
#include <iterator>

#include "phone/channel.h"

namespace {

using namespace sorvane;

/// Both ends of one link.
struct Ends {
  phone::Channel mac, phone;
};
const Ends& ends() {
  static const Ends made = [] {
    const auto mac = crypto::AgreementKey::random(), phone = crypto::AgreementKey::random();
    return Ends{phone::Channel::of(phone::Side::mac, mac, phone.publicKey()).value(),
                phone::Channel::of(phone::Side::phone, phone, mac.publicKey()).value()};
  }();
  return made;
}

template <typename Record>
void sealAndOpen(std::string_view json) {
  const bool fromMac = Record::kFrom == phone::Side::mac;
  const phone::Channel& sender = fromMac ? ends().mac : ends().phone;
  const phone::Channel& receiver = fromMac ? ends().phone : ends().mac;
  const auto box = sender.sealText(json, Record::kLabel, fromMac ? phone::Side::mac : phone::Side::phone);
  const auto opened = receiver.open<Record>(box);
  if (opened != phone::decodeRecord<Record>(json)) std::abort();
  if (!opened) return;
  const base::SecretText written = phone::encodeRecord(*opened);
  const auto again = receiver.open<Record>(sender.seal(*opened));
  if (!again || *again != *opened || phone::encodeRecord(*again).view() != written.view()) std::abort();
  if (receiver.openText(box, "other", fromMac ? phone::Side::mac : phone::Side::phone)) std::abort();
}

constexpr void (*kRecords[])(std::string_view) = {
    sealAndOpen<phone::PairConfirm>,
    sealAndOpen<phone::HelloProof>,
    sealAndOpen<phone::MacProof>,
    sealAndOpen<phone::ApprovalRequest>,
    sealAndOpen<phone::ApprovalResponse>,
    sealAndOpen<phone::ApprovalCancel>,
    sealAndOpen<phone::KeyApprovalAsk>,
    sealAndOpen<phone::KeyApprovalAnswer>,
    sealAndOpen<phone::ApproverRegisterAsk>,
    sealAndOpen<phone::ApproverRegisterAnswer>,
    sealAndOpen<phone::UnpairNotice>,
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  kRecords[data[0] % std::size(kRecords)](base::textOf({data + 1, size - 1}));
  return 0;
}
