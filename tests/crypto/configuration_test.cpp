#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <fstream>
#include <string>

#include "base/codec.h"
#include "crypto/aead.h"

namespace sorvane::crypto {
namespace {

/// In a program of its own: what the library has read once it does not read again.
[[noreturn]] void sealAndLeave() {
  try {
    const base::Bytes plain(8, 7);
    const base::Bytes box = seal(*SymmetricKey::fromBytes(base::Bytes(32, 1)), plain, "");
    ::_exit(box.size() > plain.size() ? 0 : 1);
  } catch (const std::exception&) {
    ::_exit(1);
  }
}

TEST(ConfigurationDeathTest, aFileThatNamesOtherCodeIsNotRead) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string file = testing::TempDir() + "/sorvane-openssl.cnf";
  std::ofstream(file) << "openssl_conf = begin\n[begin]\nproviders = chosen\n[chosen]\nnull = nothing\n"
                         "[nothing]\nactivate = 1\n";
  ::setenv("OPENSSL_CONF", file.c_str(), 1);
  EXPECT_EXIT(sealAndLeave(), testing::ExitedWithCode(1), "") << "the file as such takes every cipher away";
  EXPECT_EXIT((initialise(), sealAndLeave()), testing::ExitedWithCode(0), "");
  ::unsetenv("OPENSSL_CONF");
  std::remove(file.c_str());
}

}  // namespace
}  // namespace sorvane::crypto
