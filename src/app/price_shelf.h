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
  PriceShelf(std::filesystem::path supportFolder, base::Files& files, vault::SecretStore& store)
      : folder_(std::move(supportFolder)), files_(files), store_(store) {}

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
  std::optional<std::string> read(std::string_view name) REQUIRES(mutex_);
  void keep(std::string_view name, const std::string& text) REQUIRES(mutex_);
  std::shared_ptr<const proxy::PriceBook> build(const std::string& openRouter, const std::string& own) REQUIRES(mutex_);
  void load() REQUIRES(mutex_);

  // Constant after construction.
  const std::filesystem::path folder_;
  base::Files& files_;
  vault::SecretStore& store_;
  // Guarded. Held over the files, which it guards too.
  base::Mutex mutex_;
  std::shared_ptr<const proxy::PriceBook> book_ GUARDED_BY(mutex_);
  std::string openRouter_ GUARDED_BY(mutex_), own_ GUARDED_BY(mutex_);
  std::vector<std::string> notices_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::app
