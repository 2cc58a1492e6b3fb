#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/secret_text.h"
#include "platform/linux/secret_service_cipher.h"

namespace sdbus {
class Error;
class IConnection;
class IProxy;
class Variant;
}  // namespace sdbus

namespace sorvane::platform {

/// DbusSecretService is one connection to the Secret Service (the freedesktop interface "org.freedesktop.Secret") with
/// an open, encrypted session. Items, collections and prompts are named by their object paths. Every failure is
/// vault::SecretStoreError: permissionDenied when the keyring is locked or the person said no or nothing, notFound for
/// an object that is gone, backend otherwise. One caller at a time.
class DbusSecretService {
 public:
  using Attributes = std::map<std::string, std::string>;
  using Paths = std::vector<std::string>;

  /// Connects to the session bus and opens a session. A prompt that is not answered within `promptLimit` is withdrawn.
  explicit DbusSecretService(std::chrono::milliseconds promptLimit);
  ~DbusSecretService();
  DbusSecretService(const DbusSecretService&) = delete;
  DbusSecretService& operator=(const DbusSecretService&) = delete;

  /// True once the connection or the session was lost: a new object may work where this one cannot.
  bool isLost() const { return isLost_; }

  struct Found {
    Paths unlocked, locked;
  };
  /// The items that have all these attributes, in every collection. Nothing is unlocked.
  Found search(const Attributes& attributes);
  Attributes attributesOf(const std::string& item);
  /// Empty when there is no collection that new items go to.
  std::string defaultCollection();
  bool isLocked(const std::string& collection);
  /// Makes the collection that new items go to, which may ask the person for a password.
  std::string makeDefaultCollection();
  /// Unlocks items or collections, asking the person where the service wants it.
  void unlock(const Paths& objects);

  base::SecretText secretOf(const std::string& item);
  void setSecret(const std::string& item, const base::SecretText& value);
  struct NewItem {
    std::string label;
    Attributes attributes;
  };
  /// An item with the same attributes is replaced.
  void createItem(const std::string& collection, const NewItem& item, const base::SecretText& value);
  /// An item that is gone already is no failure.
  void remove(const std::string& item);

 private:
  class Prompt;
  template <typename Call>
  auto guarded(const Call& call) -> decltype(call());
  [[noreturn]] void fail(const sdbus::Error& error);
  std::unique_ptr<sdbus::IProxy> object(const std::string& path);
  void openSession();
  /// Runs the prompt unless `path` is "/", which stands for none. The result is the prompt's own.
  sdbus::Variant prompt(const std::string& path);

  const std::chrono::milliseconds promptLimit_;
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> service_;
  std::unique_ptr<SecretServiceCipher> cipher_;
  std::string session_;
  bool isLost_ = false;
};

}  // namespace sorvane::platform
