#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "proxy/call_record.h"
#include "proxy/ledger_writer.h"

namespace sorvane::proxy {

/// The ledger's file in the support folder.
inline constexpr std::string_view kLedgerName = "proxy-ledger.jsonl";
/// The records of so long go into one write and one sync.
inline constexpr std::chrono::milliseconds kLedgerBatch{100};

/// CallLedger keeps the record of every forwarded call in a file of JSON lines, chained by hashes, whose head is kept
/// sealed in the vault's settings (docs/proxy-ledger.md). One thread of its own writes the file and the seal, so that a
/// call waits for neither; a crash can lose what came within the last kLedgerBatch. Any thread.
///
/// A seal that cannot be read or renewed stops nothing: calls are recorded, and `notices` says what is not vouched for.
class CallLedger final : public ProxyCallLog {
 public:
  CallLedger(std::filesystem::path path, LedgerWriter::Ports ports);
  /// Stops.
  ~CallLedger() override;
  CallLedger(const CallLedger&) = delete;
  CallLedger& operator=(const CallLedger&) = delete;

  /// Costs a copy; never waits for the disk or the vault.
  void record(const ProxyCallRecord& record) override;

  struct Reading {
    std::int64_t lines = 0;
    std::vector<std::string> notices;  ///< whole sentences: what is wrong with the file, its seal or the writing
  };
  /// Everything that was recorded before the call. `take` is called for each line in its order on the calling thread,
  /// which also compares the file with its seal. Throws base::FileError.
  Reading read(const std::function<void(std::string_view line)>& take);
  /// Has the file compared with its seal soon, on the writer's thread, unless that was done before; `notices` says what
  /// was found. Does not wait.
  void look();
  /// What is known to be wrong without reading the file.
  std::vector<std::string> notices() const;
  /// Returns when all that was recorded before was written, or was tried to be.
  void flush();
  /// Writes what waits, renews the seal and ends the thread. Later records are lost.
  void stop();

 private:
  void run(const std::stop_token& stop);
  /// Has the writer's thread do it, behind what was recorded before.
  template <typename Work>
  auto onWriter(const Work& work);
  void step(std::vector<ProxyCallRecord> records, LedgerWriter::When renewal);
  void publish();

  // The writer's thread's own; the last caller's once it has ended.
  LedgerWriter writer_;

  // Guarded. A leaf: no file, vault or callback while it is held.
  mutable base::Mutex mutex_;
  base::Condition changed_;
  std::vector<ProxyCallRecord> waiting_ GUARDED_BY(mutex_);
  std::vector<std::function<void()>> asked_ GUARDED_BY(mutex_);
  bool owes_ GUARDED_BY(mutex_) = false;
  bool stopping_ GUARDED_BY(mutex_) = false;
  bool ended_ GUARDED_BY(mutex_) = false;
  std::int64_t lost_ GUARDED_BY(mutex_) = 0;
  LedgerTrouble trouble_ GUARDED_BY(mutex_);
  base::Mutex ending_;  ///< held while the thread is joined
  // The last member: joined before the others go.
  std::jthread thread_ GUARDED_BY(ending_);
};

}  // namespace sorvane::proxy
