#include "approver/key_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "approver/fields.h"
#include "base/codec.h"
#include "base/descriptor.h"
#include "base/ids.h"
#include "base/json_writer.h"
#include "base/system.h"
#include "crypto/aead.h"
#include "crypto/digest.h"

namespace sorvane::approver {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kFormat = "sorvane-approver-keys";
constexpr std::int64_t kVersion = 1;
constexpr std::size_t kIdDigits = 16;

KeyFileError unreadable(const fs::path& path) {
  return {
      KeyFileError::Case::unreadable,
      "The key file " + path.string() +
          " cannot be read: it is damaged, or of another version. Nothing was answered. Run sorvane-approver forget "
          "and pair this device again."};
}

/// What was read, and whether nobody else could read or write it: both of one open file, so that no other can take
/// its name in between.
struct ReadFile {
  std::string text;
  bool isProtected = false;
};

/// nullopt when there is no file. A file that grows meanwhile is read as far as it was when it was opened.
std::optional<ReadFile> readOnce(const fs::path& path) {
  // A pipe put in the file's place must not stop us.
  const base::Descriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file && errno == ENOENT) return std::nullopt;
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) throw unreadable(path);
  if (static_cast<std::uint64_t>(status.st_size) > KeyFile::kMostBytes) throw unreadable(path);
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  for (std::size_t filled = 0; filled < text.size();) {
    const ssize_t got = ::read(file.get(), text.data() + filled, text.size() - filled);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) throw unreadable(path);
    filled += static_cast<std::size_t>(got);
  }
  return ReadFile{std::move(text), status.st_uid == ::geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0};
}

/// The line that is not sealed. What stands in it is what the seal is bound to, byte by byte.
std::string openLine(const PairingFacts& facts, const SealingKey& sealing) {
  base::JsonWriter writer;
  writer.beginObject().field("format", kFormat).key("version").integer(kVersion);
  writer.key("salt").base64(sealing.salt).key("memoryKiB").integer(sealing.cost.memoryKiB);
  writer.key("iterations").integer(sealing.cost.iterations);
  writer.field("macName", facts.macName).field("deviceName", facts.deviceName).field("computerId", facts.computerId);
  std::vector<std::string> places;
  for (const Place& place : facts.places) places.push_back(textOf(place));
  writer.strings("places", places).field("pairedAt", base::iso8601(facts.pairedAt)).endObject();
  return std::string(writer.view());
}

PairingFacts readFacts(const Fields& fields) {
  PairingFacts facts{fields.text("macName"), fields.text("deviceName"), fields.text("computerId"), {}, {}};
  for (const std::string& place : fields.optionalTexts("places").value_or(std::vector<std::string>()))
    facts.places.push_back(readPlace(place));
  const auto pairedAt = base::parseIso8601(fields.text("pairedAt"));
  if (!pairedAt) throw LinkError(LinkError::Case::unreadable);
  facts.pairedAt = *pairedAt;
  return facts;
}

std::uint32_t readCost(const Fields& fields, const char* key) {
  const auto number = fields.optionalInteger(key);
  if (!number || *number < 0 || *number > crypto::kMaxPassphraseMemoryKiB) throw LinkError(LinkError::Case::unreadable);
  return static_cast<std::uint32_t>(*number);
}

base::SecretText keysText(const OpenPairing& pairing) {
  base::JsonWriter writer;
  writer.beginObject().key("computer").base64(pairing.computer);
  writer.key("agreement").base64(pairing.keys.agreement.bytes());
  writer.key("presence").base64(pairing.keys.presence.bytes()).endObject();
  return writer.take();
}

/// Bytes of a key as the library reads them, wiped when they go.
struct KeyBytes {
  std::array<std::uint8_t, 32> bytes;
  explicit KeyBytes(std::array<std::uint8_t, 32> from) : bytes(from) { base::wipe(from.data(), from.size()); }
  ~KeyBytes() { base::wipe(bytes.data(), bytes.size()); }
  KeyBytes(const KeyBytes&) = delete;
  KeyBytes& operator=(const KeyBytes&) = delete;
};

OpenPairing readKeys(const Fields& fields, PairingFacts facts, SealingKey sealing) {
  const KeyBytes agreement(fields.bytesOfSize<32>("agreement")), presence(fields.bytesOfSize<32>("presence"));
  auto agreementKey = crypto::AgreementKey::fromBytes(agreement.bytes);
  auto presenceKey = crypto::PresenceKey::fromBytes(presence.bytes);
  if (!agreementKey || !presenceKey) throw LinkError(LinkError::Case::unreadable);
  return {std::move(facts), fields.bytesOfSize<32>("computer"),
          DeviceKeys{std::move(*agreementKey), std::move(*presenceKey)}, std::move(sealing)};
}

}  // namespace

std::string computerIdOf(const PublicKey& computer) {
  return crypto::sha256Hex(computer).substr(0, kIdDigits);
}

SealingKey newSealingKey(std::string_view passphrase, const crypto::PassphraseCost& cost) {
  base::Bytes salt(crypto::kPassphraseSaltBytes);
  base::fillRandom(salt);
  auto key = crypto::passphraseKey(passphrase, salt, cost);
  return {std::move(key), std::move(salt), cost};
}

fs::path KeyFile::usualPath() {
  const fs::path data = base::defaultSupportFolder();
  return data.empty() ? fs::path() : data.parent_path() / "sorvane-approver" / "keys";
}

std::optional<KeyFile::Text> KeyFile::read() const {
  const auto file = readOnce(path_);
  if (!file) return std::nullopt;
  if (!file->isProtected) {
    throw KeyFileError(KeyFileError::Case::notProtected,
                       "The key file " + path_.string() +
                           " is open to other users, so it was not used. Nothing was answered. If you trust it, run "
                           "chmod 600 on it; otherwise run sorvane-approver forget and pair this device again.");
  }
  const std::string& text = file->text;
  const std::size_t end = text.find('\n');
  if (end == std::string::npos || !text.ends_with('\n') || text.find('\n', end + 1) != text.size() - 1)
    throw unreadable(path_);
  return Text{text.substr(0, end), text.substr(end + 1, text.size() - end - 2)};
}

std::optional<PairingFacts> KeyFile::facts() const {
  const auto text = read();
  return text ? std::optional(factsIn(*text)) : std::nullopt;
}

PairingFacts KeyFile::factsIn(const Text& text) const {
  try {
    const Fields fields = Fields::of(text.open);
    if (fields.text("format") != kFormat || fields.optionalInteger("version") != kVersion) throw unreadable(path_);
    return readFacts(fields);
  } catch (const LinkError&) {
    throw unreadable(path_);
  } catch (const PlaceError&) {
    throw unreadable(path_);
  }
}

std::optional<OpenPairing> KeyFile::open(std::string_view passphrase) const {
  const auto text = read();
  if (!text) return std::nullopt;
  PairingFacts facts = factsIn(*text);
  try {
    const Fields fields = Fields::of(text->open);
    const auto box = base::parseBase64(text->sealed);
    const crypto::PassphraseCost cost{readCost(fields, "memoryKiB"), readCost(fields, "iterations")};
    if (!box || !crypto::isWithinBounds(cost)) throw unreadable(path_);
    base::Bytes salt = fields.bytes("salt");
    auto key = crypto::passphraseKey(passphrase, salt, cost);
    const auto keys = crypto::open(key, *box, text->open);
    if (!keys) {
      throw KeyFileError(KeyFileError::Case::wrongPassphrase,
                         "That passphrase does not open the key file. Nothing was answered. Try again.");
    }
    return readKeys(Fields::of(keys->view()), std::move(facts), {std::move(key), std::move(salt), cost});
  } catch (const LinkError&) {
    throw unreadable(path_);
  } catch (const crypto::PassphraseKeyError& error) {
    if (error.kind() == crypto::PassphraseKeyError::Case::invalidSalt) throw unreadable(path_);
    throw KeyFileError(KeyFileError::Case::wrongPassphrase, error.sentence());
  }
}

void KeyFile::save(const OpenPairing& pairing) {
  const std::string line = openLine(pairing.facts, pairing.sealing);
  const base::SecretText keys = keysText(pairing);
  const std::string text = line + "\n" + base::base64(crypto::seal(pairing.sealing.key, keys.bytes(), line)) + "\n";
  try {
    std::error_code ignored;
    // What lies above it is for everyone's programs and gets the usual rights.
    fs::create_directories(path_.parent_path().parent_path(), ignored);
    files_.makeFolder(path_.parent_path());
    files_.writeAtomically(path_, base::bytesOf(text));
  } catch (const base::FileError& error) {
    throw KeyFileError(KeyFileError::Case::notWritten,
                       "The key file was not written: " + error.sentence() +
                           ". Check that the folder can be written to and that its disk has room.");
  }
}

void KeyFile::remove() try { files_.remove(path_); } catch (const base::FileError& error) {
  throw KeyFileError(KeyFileError::Case::notWritten,
                     "The key file was not removed: " + error.sentence() + ". Remove it yourself.");
}

}  // namespace sorvane::approver
