#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "approver/link.h"
#include "approver/pair_link.h"
#include "base/clock.h"
#include "base/error.h"
#include "base/files.h"
#include "crypto/key.h"
#include "crypto/passphrase_key.h"

namespace sorvane::approver {

/// KeyFileError tells why the keys of this device cannot be had. The sentence is shown as it stands.
class KeyFileError : public base::Error {
 public:
  enum class Case {
    unreadable,       ///< no such file of ours, cut, or another version
    wrongPassphrase,  ///< or altered: the seal does not tell one from the other
    notProtected,     ///< others can read or replace the file
    notWritten,
  };
  KeyFileError(Case kind, const std::string& sentence) : Error(sentence), kind_(kind) {}
  Case kind() const { return kind_; }

 private:
  Case kind_;
};

/// What can be read of a pairing without the passphrase. The seal covers it.
struct PairingFacts {
  std::string macName;        ///< as the computer called itself
  std::string deviceName;     ///< as this device called itself
  std::string computerId;     ///< first 16 hexadecimal digits of the SHA-256 of the computer's key
  std::vector<Place> places;  ///< where it was found, the last one first
  base::Date pairedAt;
};

/// "id=" of the computer's announcement.
std::string computerIdOf(const PublicKey& computer);

/// The key of the file, made of the passphrase, with what it was made by.
struct SealingKey {
  crypto::SymmetricKey key;
  base::Bytes salt;
  crypto::PassphraseCost cost;
};
SealingKey newSealingKey(std::string_view passphrase, const crypto::PassphraseCost& cost = {});

/// OpenPairing is a pairing with its keys, from when the passphrase was given.
struct OpenPairing {
  PairingFacts facts;
  PublicKey computer{};
  DeviceKeys keys;
  SealingKey sealing;
};

/// KeyFile is the one file of this program (docs/approver.md, The key file): a line that anyone may read and a sealed
/// one. Failures are KeyFileError.
class KeyFile {
 public:
  KeyFile(base::Files& files, std::filesystem::path path) : files_(files), path_(std::move(path)) {}

  /// "sorvane-approver/keys" in the user's data folder; empty without a home folder.
  static std::filesystem::path usualPath();

  const std::filesystem::path& path() const { return path_; }
  /// nullopt when this device is paired with no computer.
  std::optional<PairingFacts> facts() const;
  /// nullopt when there is no file. Takes the time that the derivation takes.
  std::optional<OpenPairing> open(std::string_view passphrase) const;
  /// Writes the file as a whole; the folder is made (0700) when there is none.
  void save(const OpenPairing& pairing);
  void remove();

  static constexpr std::uint64_t kMostBytes = 16'384;

 private:
  struct Text {
    std::string open, sealed;
  };
  std::optional<Text> read() const;
  PairingFacts factsIn(const Text& text) const;

  base::Files& files_;
  const std::filesystem::path path_;
};

}  // namespace sorvane::approver
