#include "unlock/backup_canonical_json.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "base/json_writer.h"
#include "unlock/backup_json.h"

namespace sorvane::unlock {
namespace {

void writeCanonical(JsonCursor& cursor, base::JsonWriter& out);

void writeMembers(JsonCursor& cursor, base::JsonWriter& out) {
  std::vector<std::pair<base::SecretText, base::SecretText>> members;
  cursor.object([&](std::string_view key) {
    base::JsonWriter value;
    writeCanonical(cursor, value);
    members.emplace_back(base::SecretText(key), value.take());
  });
  const auto key = [](const auto& member) { return member.first.view(); };
  std::ranges::sort(members, {}, key);
  if (std::ranges::adjacent_find(members, {}, key) != members.end()) throw JsonCursor::Malformed{};
  out.beginObject();
  for (const auto& [name, value] : members) out.key(name.view()).raw(value.view());
  out.endObject();
}

void writeCanonical(JsonCursor& cursor, base::JsonWriter& out) {
  switch (cursor.kind()) {
    case JsonCursor::Kind::object:
      return writeMembers(cursor, out);
    case JsonCursor::Kind::array:
      out.beginArray();
      cursor.array([&] { writeCanonical(cursor, out); });
      out.endArray();
      return;
    case JsonCursor::Kind::string:
      out.string(cursor.string().view());
      return;
    case JsonCursor::Kind::number:
    case JsonCursor::Kind::boolean:
    case JsonCursor::Kind::null:
      out.raw(cursor.skip());
      return;
  }
}

}  // namespace

base::SecretText canonicalJson(std::string_view text) {
  JsonCursor cursor(text);
  base::JsonWriter out;
  writeCanonical(cursor, out);
  cursor.end();
  return out.take();
}

}  // namespace sorvane::unlock
