#include "app/price_shelf.h"

#include "base/error.h"
#include "vault/sealed_files.h"

namespace sorvane::app {
namespace {

/// Larger than any list that is kept.
constexpr std::size_t kMostBytes = 16 * 1024 * 1024;
/// The vault's generations have names of their own; these files belong to none.
constexpr std::string_view kPlace = "support-folder";

std::string notTrusted(std::string_view name) {
  return "The price list " + std::string(name) +
         " was not made with this vault's key, or is damaged, so its prices are not used. Fetch or set it again with "
         "`sorvane proxy prices`.";
}

}  // namespace

std::optional<std::string> PriceShelf::read(std::string_view name) {
  const auto contents = files_.read(folder_ / name, kMostBytes);
  if (!contents) return std::nullopt;
  const auto key = vault::readVaultKey(store_);
  const auto text = key ? vault::openFile(*key, {kPlace, name}, contents->bytes) : std::nullopt;
  if (text) return std::string(text->view());
  notices_.push_back(notTrusted(name));
  return std::nullopt;
}

void PriceShelf::keep(std::string_view name, const std::string& text) {
  const auto key = vault::readVaultKey(store_);
  if (!key) throw base::Error("The vault does not open, so the prices were not kept. Nothing was changed.");
  files_.writeAtomically(folder_ / name, vault::sealFile(*key, {kPlace, name}, text));
}

std::shared_ptr<const proxy::PriceBook> PriceShelf::build(const std::string& openRouter, const std::string& own) {
  proxy::PriceBook book = proxy::PriceBook::shipped();
  for (const std::string* const layer : {&openRouter, &own}) {
    if (layer->empty()) continue;
    if (const auto problem = book.add(*layer)) throw base::Error(*problem);
  }
  return std::make_shared<const proxy::PriceBook>(std::move(book));
}

void PriceShelf::load() {
  if (book_) return;
  try {
    openRouter_ = read(kOpenRouterPricesName).value_or("");
    own_ = read(kOwnPricesName).value_or("");
    book_ = build(openRouter_, own_);
  } catch (const base::Error& error) {
    // A list that cannot be read now is no reason to stop every call: what came with the program still holds.
    notices_.push_back(error.sentence());
    book_ = build("", "");
  }
}

std::shared_ptr<const proxy::PriceBook> PriceShelf::book() {
  const base::Lock lock(mutex_);
  load();
  return book_;
}

std::string PriceShelf::own() {
  const base::Lock lock(mutex_);
  load();
  return own_;
}

void PriceShelf::setOwn(const std::string& prices) {
  const base::Lock lock(mutex_);
  load();
  auto book = build(openRouter_, prices);
  keep(kOwnPricesName, prices);
  own_ = prices;
  book_ = std::move(book);
  notices_.clear();
}

void PriceShelf::setOpenRouter(const std::string& prices) {
  const base::Lock lock(mutex_);
  load();
  auto book = build(prices, own_);
  keep(kOpenRouterPricesName, prices);
  openRouter_ = prices;
  book_ = std::move(book);
  notices_.clear();
}

std::vector<std::string> PriceShelf::notices() {
  const base::Lock lock(mutex_);
  load();
  return notices_;
}

}  // namespace sorvane::app
