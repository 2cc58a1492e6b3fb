#include "app/price_shelf.h"

#include "base/error.h"
#include "vault/sealed_files.h"

namespace sorvane::app {
namespace {

/// Larger than any list that is kept.
constexpr std::size_t kMostBytes = 16 * 1024 * 1024;
/// The vault's generations have names of their own; these files belong to none.
constexpr std::string_view kPlace = "support-folder";
/// How long after a failure a list is read again: every call asks for the book.
constexpr std::chrono::seconds kReadAgain{10};

std::string notTrusted(std::string_view name) {
  return "The price list " + std::string(name) +
         " was not made with this vault's key, or is damaged, so its prices are not used. Fetch or set it again with "
         "`sorvane proxy prices`.";
}

std::string notOpened(std::string_view name) {
  return "The price list " + std::string(name) +
         " cannot be opened while the vault's key cannot be read, so its prices are not used. Look whether the vault "
         "opens; sorvane then reads the list by itself.";
}

}  // namespace

void PriceShelf::read(Kept& kept) {
  try {
    const auto contents = files_.read(folder_ / kept.name, kMostBytes);
    const auto key = contents ? vault::readVaultKey(store_) : std::nullopt;
    if (contents && !key) {
      kept.notice = notOpened(kept.name);
      return;
    }
    kept.wasRead = true;
    kept.notice.clear();
    if (!contents) return;
    const auto text = vault::openFile(*key, {kPlace, kept.name}, contents->bytes);
    kept.notice = notTrusted(kept.name);
    if (!text) return;
    proxy::PriceBook alone;
    const auto problem = text->empty() ? std::nullopt : alone.add(text->view());
    kept.notice = problem.value_or("");
    if (!problem) kept.text = text->view();
  } catch (const base::Error& error) {
    kept.notice = error.sentence();
  }
}

void PriceShelf::set(Kept& kept, const std::string& text) {
  load();
  auto book = build(&kept == &openRouter_ ? text : openRouter_.text, &kept == &own_ ? text : own_.text);
  const auto key = vault::readVaultKey(store_);
  if (!key) throw base::Error("The vault does not open, so the prices were not kept. Nothing was changed.");
  files_.writeAtomically(folder_ / kept.name, vault::sealFile(*key, {kPlace, kept.name}, text));
  kept = {kept.name, text, {}, true};
  book_ = std::move(book);
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
  if (book_ && openRouter_.wasRead && own_.wasRead) return;
  const base::Instant now = clock_.instant();
  if (book_ && now < readAgain_) return;
  readAgain_ = now + kReadAgain;
  // A list that cannot be read now is no reason to stop every call: the other one, and what came with the program,
  // hold.
  if (!openRouter_.wasRead) read(openRouter_);
  if (!own_.wasRead) read(own_);
  book_ = build(openRouter_.text, own_.text);
}

std::shared_ptr<const proxy::PriceBook> PriceShelf::book() {
  const base::Lock lock(mutex_);
  load();
  return book_;
}

std::string PriceShelf::own() {
  const base::Lock lock(mutex_);
  load();
  return own_.text;
}

void PriceShelf::setOwn(const std::string& prices) {
  const base::Lock lock(mutex_);
  set(own_, prices);
}

void PriceShelf::setOpenRouter(const std::string& prices) {
  const base::Lock lock(mutex_);
  set(openRouter_, prices);
}

std::vector<std::string> PriceShelf::notices() {
  const base::Lock lock(mutex_);
  load();
  std::vector<std::string> notices;
  for (const Kept* const kept : {&openRouter_, &own_}) {
    if (!kept->notice.empty()) notices.push_back(kept->notice);
  }
  return notices;
}

}  // namespace sorvane::app
