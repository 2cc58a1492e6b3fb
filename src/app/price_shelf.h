#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/files.h"
#include "base/mutex.h"
#include "proxy/price_book.h"
#include "vault/secret_store.h"

namespace sorvane::app {

/// The files of the support folder that hold prices, sealed under the vault key so that nobody else sets them.
inline constexpr std::string_view kOpenRouterPricesName = "proxy-prices-openrouter.sealed";
inline constexpr std::string_view kOwnPricesName = "proxy-prices-own.sealed";

/// PriceShelf keeps the price book in force: what came with the program, OpenRouter's list once it was fetched, and the
/// owner's own prices over both. Any thread.
class PriceShelf {
 public:
  PriceShelf(std::filesystem::path supportFolder, base::Files& files, vault::SecretStore& store,
             const base::Clock& clock)
      : folder_(std::move(supportFolder)), files_(files), store_(store), clock_(clock) {}

  /// Never null.
  std::shared_ptr<const proxy::PriceBook> book();
  /// The owner's own prices, "" when there are none.
  std::string own();
  /// Throws base::Error when the text is no price list, or cannot be kept; the book stays as it was then. An empty text
  /// removes them.
  void setOwn(const std::string& prices);
  /// Keeps a list as pricesOfOpenRouterList wrote it.
  void setOpenRouter(const std::string& prices);
  /// What the owner should know of the kept lists.
  std::vector<std::string> notices();

 private:
  /// A list that is kept in a file.
  struct Kept {
    std::string_view name;
    std::string text;      ///< in force; "" when there is none, or it cannot be used
    std::string notice;    ///< why it cannot be used
    bool wasRead = false;  ///< false while the file, or the key that it is sealed under, cannot be read
  };
  void read(Kept& kept) REQUIRES(mutex_);
  /// Has `text` in force as this list, and keeps it.
  void set(Kept& kept, const std::string& text) REQUIRES(mutex_);
  /// Throws base::Error when one of the texts is no price list.
  static std::shared_ptr<const proxy::PriceBook> build(const std::string& openRouter, const std::string& own);
  void load() REQUIRES(mutex_);

  // Constant after construction.
  const std::filesystem::path folder_;
  base::Files& files_;
  vault::SecretStore& store_;
  const base::Clock& clock_;
  // Guarded. Held over the files, which it guards too.
  base::Mutex mutex_;
  std::shared_ptr<const proxy::PriceBook> book_ GUARDED_BY(mutex_);
  Kept openRouter_ GUARDED_BY(mutex_){kOpenRouterPricesName, {}, {}};
  Kept own_ GUARDED_BY(mutex_){kOwnPricesName, {}, {}};
  base::Instant readAgain_ GUARDED_BY(mutex_){};  ///< a list that could not be read is not tried before
};

}  // namespace sorvane::app
