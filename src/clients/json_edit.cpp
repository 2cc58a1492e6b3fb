#include <algorithm>
#include <nlohmann/json.hpp>

#include "clients/config_text.h"
#include "clients/json_scan.h"

namespace sorvane::clients::json {
namespace {

constexpr std::string_view kDefaultUnit = "  ";

bool isBlankOnly(std::string_view text) {
  return text.find_first_not_of(" \t") == std::string_view::npos;
}

/// The white space at the start of the line in which `at` lies.
std::string_view lineIndent(std::string_view document, std::size_t at) {
  const std::size_t lineEnd = document.substr(0, at).rfind('\n');
  const std::size_t start = lineEnd == std::string_view::npos ? markOf(document).size() : lineEnd + 1;
  const std::size_t end = document.find_first_not_of(" \t", start);
  return document.substr(start, std::min(end, at) - start);
}

/// The indentation of an object's members, when the first of them starts its line.
std::optional<std::string_view> memberIndent(std::string_view document, const JsonObject& object) {
  if (object.members.empty()) return std::nullopt;
  const std::size_t key = object.members.front().key.begin;
  const std::size_t lineEnd = document.substr(0, key).rfind('\n');
  if (lineEnd == std::string_view::npos || lineEnd < object.range.begin) return std::nullopt;
  const std::string_view indent = document.substr(lineEnd + 1, key - lineEnd - 1);
  return isBlankOnly(indent) ? std::optional(indent) : std::nullopt;
}

/// How text that is put into one object is written.
struct Style {
  std::string lineEnd;
  std::string unit;
  std::string outer;  // the indentation of the line on which the object opens
  std::string inner;  // that of its members
  bool oneLine;
};

Style styleOf(std::string_view document, const JsonScan& scan) {
  const JsonObject& root = scan.objects.front();
  const JsonObject& parent = scan.objects.back();
  Style style;
  style.lineEnd = lineEndOf(document);
  style.unit = memberIndent(document, root).value_or(kDefaultUnit);
  if (style.unit.empty()) style.unit = kDefaultUnit;
  style.outer = lineIndent(document, parent.range.begin);
  style.inner = memberIndent(document, parent).value_or(style.outer + style.unit);
  const JsonObject& model = parent.members.empty() ? root : parent;
  style.oneLine = !model.members.empty() && model.range.of(document).find('\n') == std::string_view::npos;
  return style;
}

/// The value as text, its first line not indented.
std::string written(const OrderedJson& value, const Style& style) {
  if (style.oneLine) return value.dump();
  // Line ends within strings are escaped: every raw one is the writer's, and every tab behind it one level.
  const std::string tabbed = value.dump(1, '\t');
  std::string out;
  bool atStart = false;
  for (const char c : tabbed) {
    if (c == '\n') {
      out.append(style.lineEnd).append(style.inner);
      atStart = true;
    } else if (c == '\t' && atStart) {
      out += style.unit;
    } else {
      out += c;
      atStart = false;
    }
  }
  return out;
}

/// Behind the comments that share a line with what ends at `at`: they belong to it.
std::size_t behindLineComments(std::string_view document, std::size_t at) {
  for (std::size_t next = at;;) {
    next = std::min(document.find_first_not_of(" \t", next), document.size());
    const std::size_t end = commentEnd(document, next);
    if (end == next || document.substr(next, end - next).find('\n') != std::string_view::npos) return at;
    at = next = end;
  }
}

/// Puts `member` ("key": value) behind the last member of `parent`; fills in the punctuation part of `undo`.
std::string appended(std::string_view document, const JsonObject& parent, const Style& style, const std::string& member,
                     UndoRecord& undo) {
  const std::string gap = style.oneLine ? "" : style.lineEnd + style.inner;
  const std::size_t close = parent.range.end - 1;
  if (!parent.members.empty()) {
    const JsonMember& last = parent.members.back();
    const bool trailingComma = last.after != close;
    const std::size_t value = trailingComma ? last.after + 1 : last.value.end;
    const std::size_t at = behindLineComments(document, value);
    undo.lead = style.oneLine ? " " : gap;
    undo.trail = trailingComma ? "," : "";
    std::string out = spliced(document, {at, at}, undo.lead + member + undo.trail);
    return trailingComma ? out : out.insert(value, 1, ',');
  }
  const std::size_t at = parent.lastComment.value_or(parent.range.begin + 1);
  undo.lead = gap;
  const std::string_view space = document.substr(at, close - at);
  if (!parent.lastComment) undo.removed = space;
  // Behind a comment the white space stays, and with it perhaps a line end for the closing brace.
  const bool closed = parent.lastComment && space.find('\n') != std::string_view::npos;
  undo.trail = style.oneLine || closed ? "" : style.lineEnd + style.outer;
  return spliced(document, {at, at + undo.removed.size()}, undo.lead + member + undo.trail);
}

/// The members still missing below objects.back(), the innermost being the entry.
OrderedJson wrapped(const EntryPath& path, std::size_t parents, const OrderedJson& entry) {
  OrderedJson value = entry;
  for (std::size_t i = 0; i < parents; ++i) {
    OrderedJson parent = OrderedJson::object();
    parent[path[path.size() - 1 - i]] = std::move(value);
    value = std::move(parent);
  }
  return value;
}

Edited edited(std::string document, const EntryPath& path, UndoRecord undo) {
  undo.wrote = find(document, path).value().of(document);
  return {std::move(document), undo.encoded()};
}

/// With [begin, end) cut out, what follows would be read as part of a line comment that the cut text's line end closed.
bool wouldBeComment(std::string_view document, std::size_t triviaBegin, Range cut, std::string_view following) {
  if (following.starts_with('\n') || following.starts_with("\r\n")) return false;
  for (std::size_t at = triviaBegin; at < cut.begin;) {
    const std::size_t end = commentEnd(document, at);
    if (end >= cut.begin && document.substr(at, 2) == "//") return true;
    at = std::max(end, at + 1);
  }
  return false;
}

/// Takes the member out together with one of the commas around it. `lead` is the white space written before it; without
/// one, or when it was changed, all white space before the member goes.
std::string withoutMember(std::string_view document, const JsonMember& member, std::optional<std::string_view> lead) {
  const std::string_view front = document.substr(0, member.key.begin);
  const auto asWritten = lead ? leadStart(front, *lead) : std::nullopt;
  const std::size_t begin = asWritten.value_or(front.find_last_not_of(" \t\r\n") + 1);
  const bool nextComma = document[member.after] == ',';
  std::string kept(document.substr(member.value.end, nextComma ? member.after - member.value.end : 0));
  kept += document.substr(nextComma ? member.after + 1 : member.value.end);
  std::string out(
      wouldBeComment(document, member.before + 1, {begin, member.value.end}, kept) ? front : document.substr(0, begin));
  if (!nextComma && document[member.before] == ',') out.erase(member.before, 1);
  return out + kept;
}

/// Takes out the only member of an object with the white space written around it. nullopt when that was changed.
std::optional<std::string> withoutSole(std::string_view document, const JsonMember& member, const UndoRecord& undo) {
  if (document[member.before] != '{' || document[member.after] != '}' || undo.blank) return std::nullopt;
  const auto begin = leadStart(document.substr(0, member.key.begin), undo.lead);
  if (!begin || !document.substr(member.value.end).starts_with(undo.trail)) return std::nullopt;
  const Range ours{*begin, member.value.end + undo.trail.size()};
  const std::string following = undo.removed + std::string(document.substr(ours.end));
  if (wouldBeComment(document, member.before + 1, ours, following)) return std::nullopt;
  return spliced(document, ours, undo.removed);
}

/// The whole document was ours and nothing was put into or around the outermost object.
bool isOursAlone(std::string_view document, const JsonObject& root) {
  const std::string_view front = document.substr(0, root.range.begin);
  const std::string_view back = document.substr(root.range.end);
  return root.members.size() == 1 && !root.lastComment && front == markOf(document) && isBlank(back);
}

}  // namespace

std::optional<Range> find(std::string_view document, const EntryPath& path) {
  return scanJson(document, path).entry;
}

std::optional<base::Json> read(std::string_view document, const EntryPath& path) {
  const auto range = find(document, path);
  return range ? base::parseJson(plainJson(range->of(document))) : std::nullopt;
}

Edited set(std::string_view document, const EntryPath& path, const OrderedJson& entry) {
  const JsonScan scan = scanJson(document, path);
  UndoRecord undo;
  if (scan.objects.empty()) {
    const Style style{std::string(lineEndOf(document)), std::string(kDefaultUnit), "", "", false};
    undo.parents = path.size() - 1;
    undo.blank = document;
    return edited(std::string(markOf(document)) + written(wrapped(path, path.size(), entry), style) + style.lineEnd,
                  path, undo);
  }
  const Style style = styleOf(document, scan);
  if (scan.entry) {
    undo.replaced = scan.entry->of(document);
    return edited(spliced(document, *scan.entry, written(entry, style)), path, undo);
  }
  undo.parents = path.size() - scan.objects.size();
  const std::string member = OrderedJson(path[scan.objects.size() - 1]).dump() + (style.oneLine ? ":" : ": ") +
                             written(wrapped(path, undo.parents, entry), style);
  std::string out = appended(document, scan.objects.back(), style, member, undo);
  return edited(std::move(out), path, std::move(undo));
}

std::optional<std::string> restore(std::string_view document, const EntryPath& path, const UndoRecord& undo) {
  const JsonScan scan = scanJson(document, path);
  if (!scan.entry || scan.entry->of(document) != undo.wrote) return std::nullopt;
  if (undo.replaced) return spliced(document, *scan.entry, *undo.replaced);
  std::size_t level = path.size() - 1;
  std::size_t climbed = 0;
  while (climbed < undo.parents && level > 0 && scan.objects[level].members.size() == 1 &&
         !scan.objects[level].lastComment) {
    --level;
    ++climbed;
  }
  const JsonObject& parent = scan.objects[level];
  const JsonMember& member = parent.members[*parent.onPath];
  if (climbed < undo.parents) return withoutMember(document, member, std::nullopt);
  if (undo.blank && isOursAlone(document, parent)) return *undo.blank;
  if (auto exact = withoutSole(document, member, undo)) return exact;
  return withoutMember(document, member, undo.blank ? std::nullopt : std::optional<std::string_view>(undo.lead));
}

}  // namespace sorvane::clients::json
