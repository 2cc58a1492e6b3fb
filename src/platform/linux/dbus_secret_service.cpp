#include "platform/linux/dbus_secret_service.h"

#include <poll.h>
#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "vault/secret_store.h"

namespace sorvane::platform {

using vault::SecretStoreError;

namespace {

constexpr char kName[] = "org.freedesktop.secrets";
constexpr char kServicePath[] = "/org/freedesktop/secrets";
constexpr char kServiceInterface[] = "org.freedesktop.Secret.Service";
constexpr char kCollectionInterface[] = "org.freedesktop.Secret.Collection";
constexpr char kItemInterface[] = "org.freedesktop.Secret.Item";
constexpr char kPromptInterface[] = "org.freedesktop.Secret.Prompt";
constexpr char kNoObject[] = "/";
constexpr char kContentType[] = "text/plain; charset=utf8";
// Every answer but a prompt's comes from the service itself, at once.
constexpr std::chrono::seconds kCallLimit{15};

using Secret = sdbus::Struct<sdbus::ObjectPath, base::Bytes, base::Bytes, std::string>;

DbusSecretService::Paths pathsOf(const std::vector<sdbus::ObjectPath>& objects) {
  return {objects.begin(), objects.end()};
}

bool isOneOf(std::string_view name, std::initializer_list<std::string_view> names) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

Secret secretFor(const std::string& session, SecretServiceCipher::Sealed sealed) {
  return Secret{sdbus::ObjectPath(session), std::move(sealed.parameters), std::move(sealed.value), kContentType};
}

}  // namespace

/// Prompt shows one prompt of the service and waits for the person. The connection has no thread of its own: it is
/// served here while the prompt is shown.
class DbusSecretService::Prompt {
 public:
  Prompt(sdbus::IConnection& connection, const std::string& path)
      : connection_(connection), proxy_(sdbus::createProxy(connection, kName, path)) {
    proxy_->registerSignalHandler(kPromptInterface, "Completed", [this](sdbus::Signal& signal) {
      signal >> wasDismissed_ >> result_;
      isDone_ = true;
    });
    proxy_->finishRegistration();
  }

  sdbus::Variant run(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    // No window of ours to stand above.
    proxy_->callMethod("Prompt").onInterface(kPromptInterface).withTimeout(kCallLimit).withArguments(std::string());
    while (!isDone_) {
      while (connection_.processPendingRequest() && !isDone_) {
      }
      if (isDone_) break;
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        dismiss();
        throw SecretStoreError::permissionDenied(
            "nobody answered the keyring’s question in time; unlock the keyring and try again");
      }
      const auto data = connection_.getEventLoopPollData();
      pollfd entry{data.fd, data.events, 0};
      ::poll(&entry, 1, static_cast<int>(std::min<std::chrono::milliseconds::rep>(left.count(), 1000)));
    }
    if (wasDismissed_) {
      throw SecretStoreError::permissionDenied(
          "the keyring’s question was dismissed; try again and unlock the keyring");
    }
    return result_;
  }

 private:
  void dismiss() noexcept {
    try {
      proxy_->callMethod("Dismiss").onInterface(kPromptInterface).withTimeout(kCallLimit);
    } catch (const sdbus::Error&) {
      // The question stays on the screen; its answer will go nowhere.
    }
  }

  sdbus::IConnection& connection_;
  std::unique_ptr<sdbus::IProxy> proxy_;
  bool isDone_ = false;
  bool wasDismissed_ = false;
  sdbus::Variant result_;
};

void DbusSecretService::fail(const sdbus::Error& error) {
  const std::string& name = error.getName();
  if (name == "org.freedesktop.Secret.Error.IsLocked") {
    throw SecretStoreError::permissionDenied("the keyring is locked; unlock it and try again");
  }
  if (isOneOf(name, {"org.freedesktop.Secret.Error.NoSuchObject", "org.freedesktop.DBus.Error.UnknownObject"})) {
    throw SecretStoreError::notFound();
  }
  if (isOneOf(name, {"org.freedesktop.DBus.Error.AccessDenied", "org.freedesktop.DBus.Error.AuthFailed"})) {
    throw SecretStoreError::permissionDenied("the Secret Service refused (" + error.getMessage() + ")");
  }
  // Whatever else it was, a new connection can only help.
  isLost_ = true;
  if (isOneOf(name, {"org.freedesktop.DBus.Error.ServiceUnknown", "org.freedesktop.DBus.Error.NameHasNoOwner"}) ||
      name.starts_with("org.freedesktop.DBus.Error.Spawn.") || !connection_) {
    throw SecretStoreError::backend("no Secret Service can be reached on this session’s bus (" + error.getMessage() +
                                    "); start your desktop’s keyring and try again");
  }
  throw SecretStoreError::backend("the Secret Service failed (" + error.getMessage() + ")");
}

template <typename Call>
auto DbusSecretService::guarded(const Call& call) -> decltype(call()) {
  try {
    return call();
  } catch (const sdbus::Error& error) {
    fail(error);
  } catch (const crypto::CryptoFailure& failure) {
    throw SecretStoreError::backend(failure.sentence());
  }
}

DbusSecretService::DbusSecretService(std::chrono::milliseconds promptLimit) : promptLimit_(promptLimit) {
  guarded([&] {
    connection_ = sdbus::createSessionBusConnection();
    connection_->setMethodCallTimeout(kCallLimit);
    service_ = object(kServicePath);
    openSession();
  });
}

DbusSecretService::~DbusSecretService() = default;

std::unique_ptr<sdbus::IProxy> DbusSecretService::object(const std::string& path) {
  return sdbus::createProxy(*connection_, kName, path);
}

void DbusSecretService::openSession() {
  while (true) {
    auto cipher = std::make_unique<SecretServiceCipher>();
    sdbus::Variant theirKey;
    sdbus::ObjectPath session;
    service_->callMethod("OpenSession")
        .onInterface(kServiceInterface)
        .withArguments(std::string(SecretServiceCipher::kAlgorithm), sdbus::Variant(cipher->publicKey()))
        .storeResultsTo(theirKey, session);
    const auto agreement = cipher->agree(theirKey.get<base::Bytes>());
    if (agreement == SecretServiceCipher::Agreement::refused) {
      throw SecretStoreError::backend("the Secret Service offered a key that protects nothing");
    }
    if (agreement == SecretServiceCipher::Agreement::repeat) continue;
    cipher_ = std::move(cipher);
    session_ = session;
    return;
  }
}

DbusSecretService::Found DbusSecretService::search(const Attributes& attributes) {
  return guarded([&] {
    std::vector<sdbus::ObjectPath> unlocked, locked;
    service_->callMethod("SearchItems")
        .onInterface(kServiceInterface)
        .withArguments(attributes)
        .storeResultsTo(unlocked, locked);
    return Found{pathsOf(unlocked), pathsOf(locked)};
  });
}

DbusSecretService::Attributes DbusSecretService::attributesOf(const std::string& item) {
  return guarded([&] {
    const sdbus::Variant attributes = object(item)->getProperty("Attributes").onInterface(kItemInterface);
    return attributes.get<Attributes>();
  });
}

std::string DbusSecretService::defaultCollection() {
  return guarded([&] {
    sdbus::ObjectPath path;
    service_->callMethod("ReadAlias")
        .onInterface(kServiceInterface)
        .withArguments(std::string("default"))
        .storeResultsTo(path);
    return path == kNoObject ? std::string() : std::string(path);
  });
}

bool DbusSecretService::isLocked(const std::string& collection) {
  return guarded([&] {
    const sdbus::Variant locked = object(collection)->getProperty("Locked").onInterface(kCollectionInterface);
    return locked.get<bool>();
  });
}

std::string DbusSecretService::makeDefaultCollection() {
  return guarded([&] {
    const std::map<std::string, sdbus::Variant> properties{
        {"org.freedesktop.Secret.Collection.Label", sdbus::Variant(std::string("Default keyring"))}};
    sdbus::ObjectPath path, question;
    service_->callMethod("CreateCollection")
        .onInterface(kServiceInterface)
        .withArguments(properties, std::string("default"))
        .storeResultsTo(path, question);
    if (path != kNoObject) return std::string(path);
    return std::string(prompt(question).get<sdbus::ObjectPath>());
  });
}

sdbus::Variant DbusSecretService::prompt(const std::string& path) {
  if (path == kNoObject) return {};
  return Prompt(*connection_, path).run(promptLimit_);
}

void DbusSecretService::unlock(const Paths& objects) {
  guarded([&] {
    std::vector<sdbus::ObjectPath> unlocked;
    sdbus::ObjectPath question;
    service_->callMethod("Unlock")
        .onInterface(kServiceInterface)
        .withArguments(std::vector<sdbus::ObjectPath>(objects.begin(), objects.end()))
        .storeResultsTo(unlocked, question);
    prompt(question);
  });
}

base::SecretText DbusSecretService::secretOf(const std::string& item) {
  return guarded([&] {
    Secret secret;
    object(item)
        ->callMethod("GetSecret")
        .onInterface(kItemInterface)
        .withArguments(sdbus::ObjectPath(session_))
        .storeResultsTo(secret);
    auto value = cipher_->decrypt(secret.get<1>(), secret.get<2>());
    if (!value) throw SecretStoreError::backend("the Secret Service sent a value that does not belong to this session");
    return std::move(*value);
  });
}

void DbusSecretService::setSecret(const std::string& item, const base::SecretText& value) {
  guarded([&] {
    object(item)
        ->callMethod("SetSecret")
        .onInterface(kItemInterface)
        .withArguments(secretFor(session_, cipher_->encrypt(value)));
  });
}

void DbusSecretService::createItem(const std::string& collection, const NewItem& item, const base::SecretText& value) {
  guarded([&] {
    const std::map<std::string, sdbus::Variant> properties{
        {"org.freedesktop.Secret.Item.Label", sdbus::Variant(item.label)},
        {"org.freedesktop.Secret.Item.Attributes", sdbus::Variant(item.attributes)}};
    constexpr bool kReplace = true;
    sdbus::ObjectPath path, question;
    object(collection)
        ->callMethod("CreateItem")
        .onInterface(kCollectionInterface)
        .withArguments(properties, secretFor(session_, cipher_->encrypt(value)), kReplace)
        .storeResultsTo(path, question);
    prompt(question);
  });
}

void DbusSecretService::remove(const std::string& item) {
  try {
    guarded([&] {
      sdbus::ObjectPath question;
      object(item)->callMethod("Delete").onInterface(kItemInterface).storeResultsTo(question);
      prompt(question);
    });
  } catch (const SecretStoreError& error) {
    if (error.kind() != SecretStoreError::Case::notFound) throw;
  }
}

}  // namespace sorvane::platform
