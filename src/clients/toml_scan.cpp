#include "clients/toml_scan.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>

namespace sorvane::clients::toml {
namespace {

bool startsWith(const TomlKey& key, const TomlKey& prefix) {
  return key.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), key.begin());
}

/// Walks one document, and notes the entry and what in it stands in its way.
class TomlScanner {
 public:
  TomlScanner(std::string_view text, const EntryPath& path) : cursor_{text, markOf(text).size()}, path_(path) {}

  TomlScan scan() {
    for (skipLines(cursor_); cursor_.at < cursor_.text.size(); skipLines(cursor_)) {
      const std::size_t start = cursor_.at;
      if (cursor_.peek() == '[') {
        header();
      } else {
        pair();
      }
      std::size_t end = cursor_.at;
      skipBlanks(cursor_);
      if (cursor_.peek() == '#') {
        skipComment(cursor_);
        end = cursor_.at;
      }
      if (!cursor_.atLineEnd()) refuseDamaged(cursor_.text, cursor_.at, "there is text behind the end of a value");
      if (inEntry_ && !scan_.entry) scan_.entry = Range{start, start};
      if (inEntry_) scan_.entry->end = end;
    }
    return std::move(scan_);
  }

 private:
  void header() {
    const std::size_t start = cursor_.at;
    const bool array = cursor_.startsWith("[[");
    const std::string_view closing = array ? "]]" : "]";
    cursor_.at += closing.size();
    header_ = readKey(cursor_);
    if (!cursor_.startsWith(closing)) refuseDamaged(cursor_.text, start, "a table's header is not closed");
    cursor_.at += closing.size();
    if (startsWith(path_, header_)) {
      if (array) refuseShape(cursor_.text, start, "the entry or its parent is an array of tables");
      if (!onPath_.insert(header_.size()).second) {
        refuseDamaged(cursor_.text, start, "a table on the way to the entry stands a second time");
      }
    }
    const bool before = inEntry_;
    inEntry_ = startsWith(header_, path_);
    if (!inEntry_) return;
    if (scan_.entry && !before)
      refuseShape(cursor_.text, start, "a part of the entry stands apart from the rest of it");
    const TomlKey rest(header_.begin() + static_cast<std::ptrdiff_t>(path_.size()), header_.end());
    using Kind = TomlStatement::Kind;
    scan_.statements.push_back({array ? Kind::arrayTable : Kind::table, rest, {}});
  }

  void pair() {
    const std::size_t start = cursor_.at;
    const TomlKey key = readKey(cursor_);
    if (cursor_.peek() != '=') refuseDamaged(cursor_.text, start, "the equals sign behind a key is missing");
    if (!inEntry_) checkBeside(key, start);
    ++cursor_.at;
    skipBlanks(cursor_);
    const std::size_t value = cursor_.at;
    (void)readValue(cursor_);
    if (inEntry_) scan_.statements.push_back({TomlStatement::Kind::pair, key, {value, cursor_.at}});
  }

  /// A pair outside the entry's tables may be the entry in another spelling, or take the place of its parent.
  void checkBeside(const TomlKey& key, std::size_t start) const {
    TomlKey full = header_;
    full.insert(full.end(), key.begin(), key.end());
    if (startsWith(path_, full)) refuseShape(cursor_.text, start, "the entry or its parent is written as a value");
    if (startsWith(full, path_)) refuseShape(cursor_.text, start, "the entry is written with dotted keys");
  }

  TomlCursor cursor_;
  const EntryPath& path_;
  TomlKey header_;
  std::set<std::size_t> onPath_;  // how many keys of the path the headers seen so far have
  bool inEntry_ = false;
  TomlScan scan_;
};

}  // namespace

TomlScan scanToml(std::string_view document, const EntryPath& path) {
  return TomlScanner(document, path).scan();
}

}  // namespace sorvane::clients::toml
