#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/error.h"
#include "base/files.h"

namespace sorvane::vault {

/// Where the values are kept. The stored words are "embedded", "secret-service" and "keychain".
enum class StoreKind { embedded, secretService, keychain };
std::string_view word(StoreKind kind);
std::optional<StoreKind> storeKindOf(std::string_view word);
/// The store in a sentence, such as "the embedded store".
std::string_view inWords(StoreKind kind);

/// File of the support folder that tells which store is in use.
inline constexpr std::string_view kStoreRecordName = "store.json";

/// StoreRecord is the store in use. `leaving` is the one whose items a move has copied and not yet removed.
struct StoreRecord {
  StoreKind kind = StoreKind::embedded;
  std::optional<StoreKind> leaving;
  bool operator==(const StoreRecord&) const = default;
};

/// StoreRecordError carries a sentence shown as it stands.
class StoreRecordError : public base::Error {
 public:
  using Error::Error;
};

/// JSON object with `kind` and, where there is one, `leaving`.
std::string encodeStoreRecord(const StoreRecord& record);
/// nullopt for anything else. Pure; takes foreign bytes.
std::optional<StoreRecord> decodeStoreRecord(std::string_view text);

/// Reads the record of the support folder. `damaged` when there is a file that is no record.
struct ReadRecord {
  std::optional<StoreRecord> record;
  bool damaged = false;
};
ReadRecord readStoreRecord(base::Files& files, const std::filesystem::path& supportFolder);
/// Durable when it returns. Throws FileError.
void writeStoreRecord(base::Files& files, const std::filesystem::path& supportFolder, const StoreRecord& record);

/// What a start finds in the support folder beside the record.
struct StoreTraces {
  bool vault = false;             ///< a vault was made here before
  bool embeddedDatabase = false;  ///< the embedded store's database lies here
};

/// StoreChoice is the store to open, and when it is to be recorded: a record is never made for a vault that the store
/// turns out not to open.
struct StoreChoice {
  StoreRecord record;
  enum class Write { no, now, onceOpened } write = Write::no;
};

/// Decides which store a start opens; `asked` is what the command line said, and `offered` are the stores of this
/// system, at least one, the usual one first. Throws StoreRecordError when `asked` is another than the recorded one,
/// when the recorded one is of another system, and when the record is gone and nothing tells which store holds the
/// vault's values.
StoreChoice chooseStore(std::optional<StoreKind> asked, const ReadRecord& found, const StoreTraces& traces,
                        std::span<const StoreKind> offered);
/// The stores in a sentence, such as "embedded or secret-service".
std::string wordsOf(std::span<const StoreKind> kinds);

}  // namespace sorvane::vault
