#include "unlock/store_wrap.h"

#include <nlohmann/json.hpp>

#include "base/codec.h"
#include "base/date.h"
#include "base/ids.h"
#include "base/json_writer.h"
#include "crypto/aead.h"
#include "unlock/record_json.h"

namespace sorvane::unlock {
namespace {

using base::Json;

static_assert(kWrappedKeyBytes == crypto::kNonceBytes + crypto::SymmetricKey::kBytes + crypto::kTagBytes);

std::string associatedData(const base::Bytes& salt, const crypto::PassphraseCost& cost) {
  return "sorvane.store-wrap.v" + std::to_string(kWrapFormat) + "." + base::base64(salt) + "." +
         std::to_string(cost.memoryKiB) + "." + std::to_string(cost.iterations);
}

/// The keys that every wrap has; `lastFailure` may stand beside them.
constexpr std::size_t kKeys = 11;

std::optional<crypto::PassphraseCost> costIn(const Json& object) {
  const auto memory = countAt(object, "memoryKiB", crypto::kMaxPassphraseMemoryKiB);
  const auto iterations = countAt(object, "iterations", crypto::kMaxPassphraseIterations);
  if (!memory || !iterations) return std::nullopt;
  const crypto::PassphraseCost cost{static_cast<std::uint32_t>(*memory), static_cast<std::uint32_t>(*iterations)};
  return isWithinBounds(cost) ? std::optional(cost) : std::nullopt;
}

std::optional<base::Bytes> bytesOfLength(const Json& object, const char* key, std::size_t length) {
  auto bytes = bytesAt(object, key);
  return bytes && bytes->size() == length ? std::move(bytes) : std::nullopt;
}

std::optional<StoreWrap> readWrap(const Json& object) {
  StoreWrap wrap;
  auto salt = bytesOfLength(object, "salt", crypto::kPassphraseSaltBytes);
  auto key = bytesOfLength(object, "key", kWrappedKeyBytes);
  auto verifierSalt = bytesOfLength(object, "verifierSalt", crypto::kPassphraseSaltBytes);
  const auto cost = costIn(object);
  const auto requirement = requirementAt(object, "requirement");
  const auto follows = flagAt(object, "followsSession"), newDatabase = flagAt(object, "newDatabase"),
             inClear = flagAt(object, "keyLayInClear");
  const auto attempts = countAt(object, "failedAttempts", INT64_MAX);
  if (!salt || !key || !verifierSalt || !cost || !requirement || !follows || !newDatabase || !inClear || !attempts) {
    return std::nullopt;
  }
  if (*requirement == PassphraseRequirement::off) return std::nullopt;
  if (!readDate(object, "lastFailure", wrap.lastFailure)) return std::nullopt;
  if (object.size() != kKeys + (wrap.lastFailure ? 1U : 0U)) return std::nullopt;
  wrap.salt = *std::move(salt);
  wrap.cost = *cost;
  wrap.key = *std::move(key);
  wrap.requirement = *requirement;
  wrap.followsSession = *follows;
  wrap.verifierSalt = *std::move(verifierSalt);
  wrap.newDatabase = *newDatabase;
  wrap.keyLayInClear = *inClear;
  wrap.failedAttempts = *attempts;
  return wrap;
}

}  // namespace

base::SecretText encodeWrap(const StoreWrap& wrap) {
  base::JsonWriter json;
  json.beginObject();
  json.key("format").integer(kWrapFormat);
  json.key("salt").base64(wrap.salt);
  json.key("memoryKiB").integer(wrap.cost.memoryKiB).key("iterations").integer(wrap.cost.iterations);
  json.key("key").base64(wrap.key);
  json.field("requirement", word(wrap.requirement));
  json.key("followsSession").boolean(wrap.followsSession);
  json.key("verifierSalt").base64(wrap.verifierSalt);
  json.key("newDatabase").boolean(wrap.newDatabase);
  json.key("keyLayInClear").boolean(wrap.keyLayInClear);
  json.key("failedAttempts").integer(wrap.failedAttempts);
  if (wrap.lastFailure) json.field("lastFailure", base::iso8601(*wrap.lastFailure));
  json.endObject();
  return json.take();
}

std::variant<StoreWrap, WrapRefusal> decodeWrap(std::string_view text) {
  if (text.size() > kMaxWrapBytes) return WrapRefusal::damaged;
  const auto json = base::parseJson(text);
  if (!json || !json->is_object()) return WrapRefusal::damaged;
  const auto format = countAt(*json, "format", INT64_MAX);
  if (format && *format > kWrapFormat) return WrapRefusal::newerFormat;
  if (format != kWrapFormat) return WrapRefusal::damaged;
  auto wrap = readWrap(*json);
  if (!wrap) return WrapRefusal::damaged;
  return *std::move(wrap);
}

std::string_view sentenceOf(WrapRefusal refusal) {
  switch (refusal) {
    case WrapRefusal::damaged:
      return "The file store.wrap is damaged or was replaced. The values are sealed under your passphrase and cannot "
             "be "
             "opened without that file. Put it back from a copy, or restore a backup.";
    case WrapRefusal::newerFormat:
      return "The file store.wrap was written by a newer sorvane. The values cannot be opened without it. Update "
             "sorvane, or restore a backup.";
  }
  return {};
}

WrappingKey WrappingKey::make(std::string_view passphrase, const crypto::PassphraseCost& cost) {
  base::Bytes salt(crypto::kPassphraseSaltBytes);
  base::fillRandom(salt);
  crypto::SymmetricKey key = crypto::passphraseKey(passphrase, salt, cost);
  return {std::move(salt), cost, std::move(key)};
}

void sealStoreKey(StoreWrap& wrap, const WrappingKey& wrapping, const crypto::SymmetricKey& storeKey) {
  wrap.salt = wrapping.salt;
  wrap.cost = wrapping.cost;
  wrap.key = crypto::seal(wrapping.key, storeKey.bytes(), associatedData(wrap.salt, wrap.cost));
}

std::optional<crypto::SymmetricKey> openStoreKey(const StoreWrap& wrap, std::string_view passphrase) {
  const crypto::SymmetricKey key = crypto::passphraseKey(passphrase, wrap.salt, wrap.cost);
  const auto opened = crypto::open(key, wrap.key, associatedData(wrap.salt, wrap.cost));
  return opened ? crypto::SymmetricKey::fromBytes(opened->bytes()) : std::nullopt;
}

}  // namespace sorvane::unlock
