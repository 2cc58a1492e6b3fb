#include "phone/link_record.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "base/codec.h"
#include "base/json.h"
#include "base/json_writer.h"
#include "crypto/digest.h"
#include "phone/approver_server.h"
#include "phone/fields.h"
#include "phone/phone_error.h"

namespace sorvane::phone {
namespace {

constexpr std::int64_t kVersion = 1;

[[noreturn]] void damaged() {
  throw PhoneError(
      "The list of paired phones is damaged, so no phone is served. Nothing was shared. Restore a backup, or answer on "
      "this computer.");
}

/// Wipes the private key's text when the tree goes, however reading ends.
class WipedTree {
 public:
  explicit WipedTree(std::string_view text) : tree_(base::parseJson(text)) {}
  ~WipedTree() {
    if (!tree_ || !tree_->is_object()) return;
    const auto key = tree_->find("identityKey");
    if (key != tree_->end() && key->is_string()) base::wipe(key->get_ref<std::string&>());
  }
  WipedTree(const WipedTree&) = delete;
  WipedTree& operator=(const WipedTree&) = delete;
  const base::Json& get() const {
    if (!tree_) throw WrongShape{};
    return *tree_;
  }

 private:
  std::optional<base::Json> tree_;
};

crypto::AgreementKey readIdentity(const base::Json& tree) {
  const auto found = tree.find("identityKey");
  if (found == tree.end() || !found->is_string()) throw WrongShape{};
  auto bytes = base::parseBase64(found->get_ref<const std::string&>());
  if (!bytes) throw WrongShape{};
  auto key = crypto::AgreementKey::fromBytes(*bytes);
  base::wipe(bytes->data(), bytes->size());
  if (!key) throw WrongShape{};
  return std::move(*key);
}

PairedPhone readPhone(const base::Json& tree) {
  const Fields in(tree);
  PairedPhone phone{in.bytesOf<32>("publicKey"), in.bytesOf<65>("presenceKey"), in.boolean("hardwarePresenceKey"),
                    in.text("deviceName"), in.date("pairedAt")};
  if (!isDeviceName(phone.deviceName)) throw WrongShape{};
  return phone;
}

LinkRecord readRecord(std::string_view text) {
  const WipedTree tree(text);
  const Fields in(tree.get());
  if (in.integer("version") > kVersion) {
    throw PhoneError(
        "The list of paired phones was written by a later version of sorvane, so no phone is served. Nothing was "
        "shared. Install that version again, or answer on this computer.");
  }
  LinkRecord record{readIdentity(tree.get()), 0, {}};
  const std::int64_t port = in.integer("port");
  const auto phones = tree.get().find("phones");
  if (in.integer("version") != kVersion || port < 0 || port > UINT16_MAX) throw WrongShape{};
  if (phones == tree.get().end() || !phones->is_array() || phones->size() > kMostPhones) throw WrongShape{};
  record.port = static_cast<std::uint16_t>(port);
  for (const auto& item : *phones) {
    PairedPhone phone = readPhone(item);
    if (record.find(phone.publicKey) != nullptr) throw WrongShape{};
    record.phones.push_back(std::move(phone));
  }
  return record;
}

}  // namespace

const PairedPhone* LinkRecord::find(const PublicKey& phone) const {
  const auto found =
      std::find_if(phones.begin(), phones.end(), [&](const auto& one) { return one.publicKey == phone; });
  return found == phones.end() ? nullptr : &*found;
}

base::SecretText encodeLinkRecord(const LinkRecord& record) {
  base::JsonWriter out;
  out.beginObject().key("version").integer(kVersion);
  out.key("identityKey").base64(record.identity.bytes());
  out.key("port").integer(record.port);
  out.key("phones").beginArray();
  for (const auto& phone : record.phones) {
    out.beginObject();
    out.key("publicKey").base64(phone.publicKey);
    out.key("presenceKey").base64(phone.presenceKey);
    out.key("hardwarePresenceKey").boolean(phone.hardwarePresenceKey);
    out.field("deviceName", phone.deviceName);
    out.key("pairedAt").integer(wireSeconds(phone.pairedAt));
    out.endObject();
  }
  out.endArray().endObject();
  return out.take();
}

LinkRecord decodeLinkRecord(std::string_view text) {
  try {
    return readRecord(text);
  } catch (const WrongShape&) {
    damaged();
  }
}

std::string shortId(const PublicKey& key) {
  return crypto::sha256Hex(key).substr(0, 16);
}

}  // namespace sorvane::phone
