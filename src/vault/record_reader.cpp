#include <simdjson.h>

#include <algorithm>
#include <array>

#include "base/date.h"
#include "vault/record_codec.h"

namespace sorvane::vault {
namespace {

namespace dom = simdjson::dom;

constexpr std::string_view kPolicyFormat = "deployment-policy-v1";

/// Damaged is thrown inside this file only and becomes a refusal at its edge.
struct Damaged {};

std::string_view textIn(const dom::element& element) {
  std::string_view text;
  if (element.get_string().get(text) != simdjson::SUCCESS) throw Damaged{};
  return text;
}

// How each type of a field is read.
void read(const dom::element& element, std::string& out) {
  out.assign(textIn(element));
}
void read(const dom::element& element, bool& out) {
  if (element.get_bool().get(out) != simdjson::SUCCESS) throw Damaged{};
}
void read(const dom::element& element, std::int64_t& out) {
  if (element.get_int64().get(out) != simdjson::SUCCESS) throw Damaged{};
}
void read(const dom::element& element, Date& out) {
  const auto date = base::parseIso8601(textIn(element));
  if (!date) throw Damaged{};
  out = *date;
}
void read(const dom::element& element, VersionStatus& out) {
  const auto status = versionStatusOf(textIn(element));
  if (!status) throw Damaged{};
  out = *status;
}
void read(const dom::element& element, SecretVersion& out);
void read(const dom::element& element, EnvBinding& out);
void read(const dom::element& element, Secret& out);
void read(const dom::element& element, Project& out);
void read(const dom::element& element, AccessEvent& out);

template <typename T>
void read(const dom::element& element, std::vector<T>& out) {
  dom::array items;
  if (element.get_array().get(items) != simdjson::SUCCESS) throw Damaged{};
  out.reserve(items.size());
  for (const dom::element item : items) read(item, out.emplace_back());
}
template <typename T>
void read(const dom::element& element, std::optional<T>& out) {
  if (!element.is_null()) read(element, out.emplace());
}

/// One object while it is read: which of its known fields were seen, so that a second or a missing one is refused.
class Fields {
 public:
  explicit Fields(const dom::element& element) {
    if (element.get_object().get(object_) != simdjson::SUCCESS) throw Damaged{};
  }
  /// `take` is called with each key and value and returns the number of the field, or nothing for an unknown key.
  template <typename Take>
  void each(unsigned required, const Take& take) {
    unsigned seen = 0;
    for (const auto [key, value] : object_) {
      const int number = take(key, value);
      if (number < 0) continue;
      const unsigned bit = 1U << number;
      if ((seen & bit) != 0) throw Damaged{};
      seen |= bit;
    }
    if ((seen & required) != required) throw Damaged{};
  }

 private:
  dom::object object_;
};

/// Reads `element` into the members named by `table`; the first `Required` rows must be there.
template <unsigned Required, typename... Row>
void readObject(const dom::element& element, const Row&... rows) {
  static_assert(sizeof...(Row) < 32);
  Fields(element).each((1U << Required) - 1U, [&](std::string_view key, const dom::element& value) {
    int number = -1;
    int index = 0;
    const auto tryRow = [&](const auto& row) {
      if (row.first == key) {
        read(value, row.second.get());
        number = index;
        return true;
      }
      ++index;
      return false;
    };
    [[maybe_unused]] const bool known = (tryRow(rows) || ...);
    return number;
  });
}

template <typename T>
std::pair<std::string_view, std::reference_wrapper<T>> row(std::string_view name, T& member) {
  return {name, std::ref(member)};
}

void read(const dom::element& element, SecretVersion& out) {
  readObject<3>(element, row("createdAt", out.createdAt), row("status", out.status), row("version", out.version),
                row("allowedDeploymentTargets", out.allowedDeploymentTargets), row("expiresAt", out.expiresAt),
                row("label", out.label), row("retiredAt", out.retiredAt));
}

void read(const dom::element& element, EnvBinding& out) {
  readObject<2>(element, row("envVarName", out.envVarName), row("secretId", out.secretId),
                row("allowsRunControl", out.allowsRunControl), row("pinVersion", out.pinVersion));
}

void read(const dom::element& element, Secret& out) {
  readObject<9>(element, row("createdAt", out.createdAt), row("currentVersion", out.currentVersion),
                row("description", out.description), row("id", out.id), row("isFavorite", out.isFavorite),
                row("name", out.name), row("tags", out.tags), row("updatedAt", out.updatedAt),
                row("versions", out.versions), row("icon", out.icon));
}

void read(const dom::element& element, Project& out) {
  readObject<6>(element, row("bindings", out.bindings), row("createdAt", out.createdAt),
                row("description", out.description), row("id", out.id), row("name", out.name),
                row("updatedAt", out.updatedAt), row("deploymentTarget", out.deploymentTarget),
                row("rootPath", out.rootPath));
}

/// The standard form of a UUID; lower-case digits are taken and become upper-case.
std::string uuidIn(std::string_view text) {
  std::string id(text);
  if (id.size() != 36) throw Damaged{};
  for (std::size_t i = 0; i < id.size(); ++i) {
    const bool hyphen = i == 8 || i == 13 || i == 18 || i == 23;
    if (id[i] >= 'a' && id[i] <= 'f') id[i] = static_cast<char>(id[i] - 'a' + 'A');
    const bool digit = (id[i] >= '0' && id[i] <= '9') || (id[i] >= 'A' && id[i] <= 'F');
    if (hyphen ? id[i] != '-' : !digit) throw Damaged{};
  }
  return id;
}

void read(const dom::element& element, AccessEvent& out) {
  readObject<5>(element, row("actor", out.actor), row("at", out.at), row("id", out.id), row("source", out.source),
                row("tool", out.tool), row("cloudWorkspace", out.cloudWorkspace), row("projectId", out.projectId),
                row("requestor", out.requestor), row("secretId", out.secretId), row("version", out.version));
  out.id = uuidIn(out.id);
}

/// One parser holds the text and its index while the records are made from it.
class Document {
 public:
  explicit Document(std::string_view text) {
    if (text.empty()) throw Damaged{};
    if (parser_.allocate(text.size(), kMaxRecordDepth) != simdjson::SUCCESS) throw Damaged{};
    if (parser_.parse(text.data(), text.size(), true).get(root_) != simdjson::SUCCESS) throw Damaged{};
  }
  const dom::element& root() const { return root_; }

 private:
  dom::parser parser_;
  dom::element root_;
};

template <typename Record>
DecodeOutcome<std::vector<Record>> decodeList(std::string_view text) {
  try {
    const Document document(text);
    std::vector<Record> records;
    if (document.root().is_array()) {
      read(document.root(), records);
      return records;
    }
    std::string format;
    dom::element marker;
    if (document.root()["format"].get(marker) != simdjson::SUCCESS) throw Damaged{};
    read(marker, format);
    if (format != kPolicyFormat) return DecodeFailure::newerFormat;
    readObject<2>(document.root(), row("format", format), row("items", records));
    return records;
  } catch (const Damaged&) {
    return DecodeFailure::damaged;
  }
}

}  // namespace

DecodeOutcome<std::vector<Secret>> decodeSecrets(std::string_view text) {
  return decodeList<Secret>(text);
}
DecodeOutcome<std::vector<Project>> decodeProjects(std::string_view text) {
  return decodeList<Project>(text);
}

std::optional<AccessEvent> decodeEvent(std::string_view line) {
  try {
    const Document document(line);
    AccessEvent event;
    read(document.root(), event);
    return event;
  } catch (const Damaged&) {
    return std::nullopt;
  }
}

std::optional<std::vector<AccessEvent>> decodeEvents(std::string_view text) {
  try {
    const Document document(text);
    std::vector<AccessEvent> events;
    read(document.root(), events);
    return events;
  } catch (const Damaged&) {
    return std::nullopt;
  }
}

}  // namespace sorvane::vault
