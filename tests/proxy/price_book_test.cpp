#include "proxy/price_book.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "proxy/metering.h"
#include "proxy/price_book_entry.h"

namespace sorvane::proxy {
namespace {

using namespace test;

const PriceEntry* find(const PriceBook& book, ProxyProvider provider, std::string_view model,
                       std::string_view date = "2026-11-21") {
  return book.find(provider, model, day(date));
}

std::string prices(const std::string& rows) {
  return R"({"format":"sorvane-prices-v1","version":"1","origin":"owner","models":[)" + rows + "]}";
}

TEST(PriceBook, theShippedPricesAreFoundByExactNameAndDate) {
  const PriceBook& book = shippedBook();
  const struct {
    ProxyProvider provider;
    const char *model, *date, *input, *cacheRead, *output;
  } cases[] = {
      {ProxyProvider::anthropic, "claude-fable-5-1", "2026-11-21", "10", "0.25", "50"},
      {ProxyProvider::anthropic, "claude-sonnet-5-5", "2026-10-06", "2", "0.2", "10"},
      {ProxyProvider::anthropic, "claude-sonnet-5-5", "2026-10-07", "2", "0.1", "10"},
      {ProxyProvider::anthropic, "claude-opus-4-5-20251101", "2026-11-21", "5", "0.5", "25"},
      {ProxyProvider::openai, "gpt-4.1-mini", "2026-11-21", "0.4", "0.1", "1.6"},
      {ProxyProvider::openai, "text-embedding-3-large", "2026-11-21", "0.13", "0.13", "0"},
      {ProxyProvider::openrouter, "deepseek/deepseek-v4-pro", "2026-11-21", "0.435", "0.003625", "0.87"},
  };
  for (const auto& row : cases) {
    const PriceEntry* const entry = find(book, row.provider, row.model, row.date);
    ASSERT_NE(entry, nullptr) << row.model;
    const TokenRates& rates = entry->rates->tiers.front().rates;
    EXPECT_EQ(decimalOf(rates.input), row.input) << row.model;
    EXPECT_EQ(decimalOf(rates.cacheRead), row.cacheRead) << row.model;
    EXPECT_EQ(decimalOf(rates.output), row.output) << row.model;
  }
  for (const char* const model :
       {"claude-opus-4-5-2025", "claude-opus", "Claude-opus-5", "claude-opus-5 ", "", "claude-fable-5-2", "gpt-4.1"}) {
    EXPECT_EQ(find(book, ProxyProvider::anthropic, model), nullptr) << model;
  }
  EXPECT_EQ(find(book, ProxyProvider::anthropic, "claude-haiku-5-5", "2026-10-06"), nullptr)
      << "before its first price";
  for (const PriceRow& row : book.rows()) {
    EXPECT_FALSE(row.source.empty() || row.checkedOn.size() != 10 || row.input == "0") << row.model;
  }
}

TEST(PriceBook, amountsAreReadExactlyAndRoundedUp) {
  const struct {
    const char* text;
    int shift;
    std::optional<std::int64_t> nanos;
  } cases[] = {
      {"0.003625", 0, 3'625'000},
      {"0.000000003625", 6, 3'625'000},
      {"3.625e-09", 6, 3'625'000},
      {"1.4E-05", 0, 14'000},
      {"0.0000000001", 0, 1},
      {"0.0000000000", 0, 0},
      {"1e3", 0, 1'000'000'000'000},
      {"1000000", 0, 1'000'000'000'000'000},
      {"1000000.1", 0, {}},
      {"1e999", 0, {}},
      {"-1", 0, {}},
      {"1.", 0, {}},
      {".5", 0, {}},
      {"1.2.3", 0, {}},
      {"0x1", 0, {}},
      {"", 0, {}},
      {"1e", 0, {}},
      {"NaN", 0, {}},
  };
  for (const auto& row : cases) EXPECT_EQ(nanosOf(row.text, row.shift), row.nanos) << row.text;
}

TEST(PriceBook, theOwnersPricesReplaceAModelWhole) {
  PriceBook book = PriceBook::shipped();
  EXPECT_EQ(book.add(prices(R"({"provider":"anthropic","id":"claude-sonnet-5-5","input":"7","output":"9",
                                "source":"contract","checked":"2026-11-01","aliases":["house-model"]})")),
            std::nullopt);
  for (const char* const date : {"2026-01-01", "2026-11-21"}) {
    const PriceEntry* const entry = find(book, ProxyProvider::anthropic, "claude-sonnet-5-5", date);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(decimalOf(entry->rates->tiers.front().rates.write1h), "7") << "a class without a price has its input's";
    EXPECT_EQ(entry->origin + " " + entry->version, "owner 1");
  }
  EXPECT_NE(find(book, ProxyProvider::anthropic, "house-model"), nullptr);
  EXPECT_NE(find(book, ProxyProvider::anthropic, "claude-sonnet-5"), nullptr);
}

TEST(PriceBook, aTextInAnotherFormChangesNothingAndSaysWhere) {
  const std::string good = R"({"provider":"openai","id":"m","input":"1","output":"1","source":"s","checked":"c")";
  const struct {
    std::string text, where;
  } cases[] = {
      {"{", "the text is no JSON, or names a key twice"},
      {prices(good + "}," + good + R"(,"inputt":"1"})"), "row 2 of \"models\""},
      {prices(good + R"(,"cache_read":0.5})"), "row 1 of \"models\", \"cache_read\""},
      {prices(good + R"(,"from":"2026-02-30"})"), "row 1 of \"models\", \"from\""},
      {prices(good + R"(,"tiers":[{"prompt_above":5,"input":"1"}]})"), "row 1 of \"models\", \"tiers\", \"output\""},
      {prices(R"({"provider":"openai","id":"a b","input":"1","output":"1","source":"s","checked":"c"})"),
       "row 1 of \"models\", \"id\""},
  };
  for (const auto& row : cases) {
    PriceBook book;
    EXPECT_EQ(book.add(row.text), "These prices are not in the form that sorvane reads (" + row.where +
                                      "). None of them is used. Correct them as docs/prices.md describes, or remove "
                                      "them.");
    EXPECT_TRUE(book.rows().empty());
  }
}

TEST(PriceBook, theFetchedListBecomesPricesThatAreReadBack) {
  const std::string list =
      R"({"data":[{"id":"maker/one","context_length":131072,"pricing":{"prompt":"0.000000435","completion":"8.7e-07",
          "input_cache_read":"0.000000003625","request":"0.01","image":"0"},"architecture":{"modality":"text"}},
          {"id":"openrouter/auto","pricing":{"prompt":"-1","completion":"-1"}},
          {"id":"maker/two:free","pricing":{"prompt":"0","completion":"0","input_cache_write":"0.000002"}},
          {"id":"maker/three","pricing":{"prompt":0.1,"completion":"1"}}, {"id":7}, 8]})";
  const auto text = pricesOfOpenRouterList(list, day("2026-11-21"));
  ASSERT_TRUE(text);
  PriceBook book = PriceBook::shipped();
  ASSERT_EQ(book.add(*text), std::nullopt);
  const PriceEntry* const one = find(book, ProxyProvider::openrouter, "maker/one");
  ASSERT_NE(one, nullptr);
  const TokenRates& rates = one->rates->tiers.front().rates;
  EXPECT_EQ(decimalOf(rates.input) + " " + decimalOf(rates.cacheRead) + " " + decimalOf(rates.write5m) + " " +
                decimalOf(rates.output) + " " + decimalOf(one->rates->requestNanos),
            "0.435 0.003625 0.435 0.87 0.01");
  EXPECT_EQ(one->rates->contextBound, 131'072);
  EXPECT_EQ(one->origin + " " + one->version, "openrouter-list 2026-11-21T00:00:00Z");
  const PriceEntry* const two = find(book, ProxyProvider::openrouter, "maker/two:free");
  ASSERT_NE(two, nullptr);
  EXPECT_EQ(decimalOf(two->rates->tiers.front().rates.write12h), "2");
  EXPECT_EQ(find(book, ProxyProvider::openrouter, "openrouter/auto"), nullptr);
  EXPECT_EQ(find(book, ProxyProvider::openrouter, "maker/three"), nullptr);
  EXPECT_NE(find(book, ProxyProvider::openrouter, "x-ai/grok-4.3"), nullptr) << "shipped, and not in the list";
  for (const char* const bad : {"", "[]", "{}", R"({"data":[]})", R"({"data":{}})"}) {
    EXPECT_EQ(pricesOfOpenRouterList(bad, day("2026-11-21")), std::nullopt) << bad;
  }
}

}  // namespace
}  // namespace sorvane::proxy
