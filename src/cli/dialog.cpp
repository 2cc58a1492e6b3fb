#include "cli/dialog.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/unicode.h"
#include "cli/output.h"

namespace sorvane::cli {
namespace {

constexpr std::size_t kNarrowest = 20;

std::size_t columns() {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return Dialog::kWidest;
  return std::clamp<std::size_t>(size.ws_col, kNarrowest, Dialog::kWidest);
}

/// The longest start of `word` that fits into `room` columns, one character at least.
std::string_view startOf(std::string_view word, std::size_t room) {
  std::size_t end = base::decodeUtf8(word).size;
  while (end < word.size()) {
    const std::size_t next = end + base::decodeUtf8(word.substr(end)).size;
    if (base::displayWidth(word.substr(0, next)) > room) break;
    end = next;
  }
  return word.substr(0, end);
}

/// One line as it was typed; false at the end of the input. Byte by byte, so that nothing is taken from who reads next.
bool readLine(std::string& line) {
  for (char c = 0;;) {
    const ssize_t got = ::read(STDIN_FILENO, &c, 1);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    if (c == '\n') return true;
    line += c;
  }
}

}  // namespace

std::vector<std::string> wrapped(std::string_view text, std::size_t width, std::size_t indent) {
  std::vector<std::string> lines;
  std::string line;
  bool empty = true;  // but for its indentation
  const auto flush = [&] {
    lines.push_back(std::move(line));
    line.assign(indent, ' ');
    empty = true;
  };
  while (!text.empty()) {
    const std::size_t spaces = std::min(text.find_first_not_of(' '), text.size());
    // Spaces at the start of the text are an indentation; elsewhere they are where a line may end.
    if (lines.empty() && empty) line.append(text.substr(0, spaces));
    text.remove_prefix(spaces);
    std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(word.size());
    if (word.empty()) break;
    if (!empty && base::displayWidth(line) + 1 + base::displayWidth(word) > width) flush();
    if (!empty) line += ' ';
    while (base::displayWidth(line) + base::displayWidth(word) > width) {
      const std::size_t used = base::displayWidth(line);
      const std::string_view start = startOf(word, width > used ? width - used : 1);
      line += start;
      word.remove_prefix(start.size());
      flush();
    }
    line += word;
    empty = empty && word.empty();
  }
  if (!empty || lines.empty()) lines.push_back(std::move(line));
  return lines;
}

void Dialog::say(std::string_view text, std::size_t indent) const {
  std::string all;
  for (const std::string& line : wrapped(base::escapedForDisplay(text), columns(), indent)) all += line + "\n";
  print(all);
}

void Dialog::blank() const {
  print("\n");
}

std::string Dialog::ask(std::string_view prompt) const {
  for (;;) {
    const auto lines = wrapped(base::escapedForDisplay(prompt), columns() - 1, 0);
    for (std::size_t i = 0; i + 1 < lines.size(); ++i) printLine(lines[i]);
    print(lines.back() + " ");
    std::string line;
    if (!readLine(line)) {
      print("\n");
      throw EndOfInput();
    }
    if (base::isUtf8(line)) return std::string(base::trimmed(line));
    say("That cannot be read as text. Type it again.");
  }
}

}  // namespace sorvane::cli
