#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <thread>

#include "vault/secret_store.h"

namespace sorvane::test {

using vault::SecretStoreError;

/// What every credential store promises. A suite of typed tests over a factory: `Maker::make()` gives a fresh, empty
/// store, or none where what it needs is missing, which `Maker::kMissing` then names.
template <typename Maker>
class SecretStoreContract : public ::testing::Test {
 protected:
  void SetUp() override {
    if constexpr (requires { Maker::kMissing; }) {
      if (!store_) GTEST_SKIP() << Maker::kMissing;
    }
    ASSERT_TRUE(store_);
  }
  Maker maker_;
  std::unique_ptr<vault::EnumerableSecretStore> store_ = maker_.make();

  std::string valueOf(const std::string& account) { return std::string(store_->read(account).view()); }
  SecretStoreError::Case failureOf(const std::function<void()>& call) {
    try {
      call();
    } catch (const SecretStoreError& error) {
      return error.kind();
    }
    ADD_FAILURE() << "nothing was refused";
    return SecretStoreError::Case::backend;
  }
};
TYPED_TEST_SUITE_P(SecretStoreContract);

TYPED_TEST_P(SecretStoreContract, keepsReplacesAndRemovesValues) {
  EXPECT_EQ(this->failureOf([&] { this->store_->read("a"); }), SecretStoreError::Case::notFound);
  this->store_->store("a", base::SecretText("one"));
  this->store_->store("b", base::SecretText("two"));
  this->store_->store("a", base::SecretText("three"));
  EXPECT_EQ(this->valueOf("a"), "three");
  EXPECT_EQ(this->valueOf("b"), "two");
  this->store_->remove("a");
  EXPECT_NO_THROW(this->store_->remove("a"));
  EXPECT_EQ(this->failureOf([&] { this->store_->read("a"); }), SecretStoreError::Case::notFound);
  EXPECT_EQ(this->store_->accounts(), std::vector<std::string>{"b"});
}

TYPED_TEST_P(SecretStoreContract, givesBackEveryByteOfAValue) {
  const std::string values[] = {"", " spaces \n", "’é🔑", std::string("a\0b", 3),
                                std::string(vault::kMaxValueBytes, 'x')};
  for (const std::string& value : values) {
    this->store_->store("acc #v1 ’", base::SecretText(value));
    EXPECT_EQ(this->valueOf("acc #v1 ’"), value);
  }
}

TYPED_TEST_P(SecretStoreContract, refusesTooLargeAValueAndKeepsTheEarlierOne) {
  this->store_->store("a", base::SecretText("kept"));
  std::string wide;
  for (int i = 0; i < 2049; ++i) wide += "é";  // 4,098 bytes in 2,049 characters
  for (const std::string& value : {std::string(vault::kMaxValueBytes + 1, 'x'), wide}) {
    EXPECT_EQ(this->failureOf([&] { this->store_->store("a", base::SecretText(value)); }),
              SecretStoreError::Case::tooLarge);
  }
  EXPECT_EQ(this->valueOf("a"), "kept");
}

TYPED_TEST_P(SecretStoreContract, servesSeveralThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 25; ++i) {
        const std::string account = "t" + std::to_string(t) + "#v" + std::to_string(i);
        this->store_->store(account, base::SecretText(account));
        EXPECT_EQ(this->valueOf(account), account);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(this->store_->accounts().size(), 100U);
}

REGISTER_TYPED_TEST_SUITE_P(SecretStoreContract, keepsReplacesAndRemovesValues, givesBackEveryByteOfAValue,
                            refusesTooLargeAValueAndKeepsTheEarlierOne, servesSeveralThreadsAtOnce);

}  // namespace sorvane::test
