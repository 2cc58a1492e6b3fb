// What masking a command's output costs, beside memmem for each needle, vectorscan on the same needles, and `cat`, all
// taken in turn in one run. The text is the output of a build, made here: compiler lines, paths, warnings, a little
// UTF-8.

#include <fcntl.h>
#include <hs/hs.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "agent/masking.h"
#include "agent/needles.h"
#include "base/codec.h"

namespace sorvane {
namespace {

using Milliseconds = std::chrono::duration<double, std::milli>;

std::vector<std::string> madeUpValues(std::size_t count) {
  std::mt19937_64 random(20260101);
  std::vector<std::string> values;
  for (std::size_t i = 0; i < count; ++i) {
    std::vector<std::uint8_t> bytes(12 + random() % 24);
    for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
    values.push_back((i % 3 == 0 ? "key_" : "") + base::base64Url(bytes));
  }
  return values;
}

std::string buildOutput(std::size_t size, const std::vector<std::string>& values) {
  std::mt19937_64 random(7);
  const char* const words[] = {"vault",   "agent",  "server", "record", "journal",
                               "handler", "socket", "policy", "render", "codec"};
  std::string text;
  text.reserve(size + 400);
  for (int line = 0; text.size() < size; ++line) {
    const char *a = words[random() % 10], *b = words[random() % 10];
    text += "[" + std::to_string(line % 900) + "/900] /usr/bin/c++ -I/build/include/" + std::string(a) +
            " -O2 -g -Wall -Wextra -std=c++20 -o obj/" + a + "/" + b + ".cpp.o -c src/" + a + "/" + b + ".cpp\n";
    if (line % 7 == 0) {
      text += "src/" + std::string(a) + "/" + b + ".cpp:" + std::to_string(random() % 999) +
              ":17: warning: unused parameter ‘" + b + "’ [-Wunused-parameter]\n";
    }
    if (line % 5000 == 0) text += "token " + values[random() % values.size()] + "\n";
  }
  text.resize(size);
  return text;
}

double median(std::vector<double> times) {
  std::nth_element(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2), times.end());
  return times[times.size() / 2];
}

double milliseconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return Milliseconds(std::chrono::steady_clock::now() - start).count();
}

void mask(const agent::Masker& masker, const std::string& text) {
  agent::MaskingStream stream(masker);
  std::string out;
  constexpr std::size_t kPiece = 64 * 1024;
  for (std::size_t at = 0; at < text.size(); at += kPiece) {
    stream.feed(std::string_view(text).substr(at, kPiece), out);
    out.clear();
  }
  stream.finish(out);
}

std::size_t memmemEach(const std::vector<base::SecretText>& needles, const std::string& text) {
  std::size_t found = 0;
  for (const base::SecretText& needle : needles) {
    const char* at = text.data();
    const char* const end = text.data() + text.size();
    while ((at = static_cast<const char*>(
                ::memmem(at, static_cast<std::size_t>(end - at), needle.view().data(), needle.size())))) {
      at += needle.size();
      ++found;
    }
  }
  return found;
}

/// `cat` of a file, its output read from a pipe and thrown away.
void cat(const char* path) {
  int ends[2];
  if (::pipe(ends) != 0) return;
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(ends[1], 1);
    ::close(ends[0]);
    ::execlp("cat", "cat", path, nullptr);
    ::_exit(127);
  }
  ::close(ends[1]);
  static char piece[64 * 1024];
  while (::read(ends[0], piece, sizeof piece) > 0) {
  }
  ::close(ends[0]);
  ::waitpid(child, nullptr, 0);
}

class Vectorscan {
 public:
  explicit Vectorscan(const std::vector<base::SecretText>& needles) {
    std::vector<const char*> texts;
    std::vector<std::size_t> sizes;
    std::vector<unsigned> flags(needles.size(), 0), ids(needles.size(), 0);
    for (const base::SecretText& needle : needles) {
      texts.push_back(needle.view().data());
      sizes.push_back(needle.size());
    }
    hs_compile_error_t* error = nullptr;
    if (hs_compile_lit_multi(texts.data(), flags.data(), ids.data(), sizes.data(),
                             static_cast<unsigned>(needles.size()), HS_MODE_BLOCK, nullptr, &database_,
                             &error) != HS_SUCCESS ||
        hs_alloc_scratch(database_, &scratch_) != HS_SUCCESS) {
      std::fprintf(stderr, "vectorscan could not be used\n");
      std::exit(1);
    }
  }
  ~Vectorscan() {
    hs_free_scratch(scratch_);
    hs_free_database(database_);
  }
  Vectorscan(const Vectorscan&) = delete;
  Vectorscan& operator=(const Vectorscan&) = delete;
  void scan(const std::string& text) {
    constexpr std::size_t kPiece = 64 * 1024;
    for (std::size_t at = 0; at < text.size(); at += kPiece) {
      const auto piece = std::string_view(text).substr(at, kPiece);
      hs_scan(
          database_, piece.data(), static_cast<unsigned>(piece.size()), 0, scratch_,
          [](unsigned, unsigned long long, unsigned long long, unsigned, void*) { return 0; }, nullptr);
    }
  }

 private:
  hs_database_t* database_ = nullptr;
  hs_scratch_t* scratch_ = nullptr;
};

void compare(std::size_t size, std::size_t count, int rounds, bool each) {
  const auto values = madeUpValues(count);
  const std::vector<std::string_view> views(values.begin(), values.end());
  const std::string text = buildOutput(size, values);
  char path[] = "/tmp/masking-bench-XXXXXX";
  const int file = ::mkstemp(path);
  if (file < 0 || ::write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size())) std::exit(1);
  ::close(file);
  const auto needles = agent::needlesOf(views);
  const agent::Masker masker(views);
  Vectorscan vectorscan(needles);
  volatile std::size_t sink = 0;
  std::vector<double> ours, whole, theirs, cats, memmems;
  for (int round = 0; round < rounds; ++round) {
    ours.push_back(milliseconds([&] { mask(masker, text); }));
    whole.push_back(milliseconds([&] { mask(agent::Masker(views), text); }));
    theirs.push_back(milliseconds([&] { vectorscan.scan(text); }));
    cats.push_back(milliseconds([&] { cat(path); }));
    if (each && round == 0) memmems.push_back(milliseconds([&] { sink = sink + memmemEach(needles, text); }));
  }
  ::unlink(path);
  std::printf(
      "%9.1f kB %4zu values %5zu needles: masked %8.2f ms, with its build %8.2f, vectorscan %8.2f, cat %8.2f, memmem "
      "%9.1f\n",
      static_cast<double>(size) / 1000, count, needles.size(), median(ours), median(whole), median(theirs),
      median(cats), memmems.empty() ? 0 : memmems[0]);
  std::printf("             with its build / cat = %.2f\n", median(whole) / median(cats));
}

}  // namespace
}  // namespace sorvane

int main() {
  sorvane::compare(100'000'000, 20, 5, true);
  sorvane::compare(100'000'000, 200, 5, true);
  sorvane::compare(200'000, 20, 51, true);
  sorvane::compare(200'000, 200, 51, true);
}
