#include "proxy/ledger.h"

#include <future>
#include <memory>
#include <utility>

#include "base/diagnostics.h"

namespace sorvane::proxy {
namespace {

std::vector<std::string> encoded(const std::vector<ProxyCallRecord>& records) {
  std::vector<std::string> lines;
  lines.reserve(records.size());
  for (const ProxyCallRecord& record : records) lines.push_back(encodeCall(record));
  return lines;
}

}  // namespace

CallLedger::CallLedger(std::filesystem::path path, LedgerWriter::Ports ports)
    : writer_(std::move(path), ports), thread_([this](const std::stop_token& stop) { run(stop); }) {}

CallLedger::~CallLedger() {
  stop();
}

void CallLedger::record(const ProxyCallRecord& record) try {
  ProxyCallRecord copy = record;
  bool first = false;
  {
    const base::Lock lock(mutex_);
    if (stopping_ || waiting_.size() >= kMostWaiting) {
      ++lost_;
      return;
    }
    first = waiting_.empty();
    waiting_.push_back(std::move(copy));
  }
  if (first) changed_.notify_all();
} catch (const std::bad_alloc&) {
  const base::Lock lock(mutex_);
  ++lost_;
}

void CallLedger::run(const std::stop_token& stop) {
  for (;;) {
    std::vector<ProxyCallRecord> records;
    std::vector<std::function<void()>> asked;
    bool last = false;
    {
      base::Lock lock(mutex_);
      const auto work = [&]() REQUIRES(mutex_) { return !waiting_.empty() || !asked_.empty(); };
      if (owes_) {
        changed_.wait_for(lock.mutex(), stop, kSealRenewal, work);
      } else {
        changed_.wait(lock.mutex(), stop, work);
      }
      if (!waiting_.empty()) {
        changed_.wait_for(lock.mutex(), stop, kLedgerBatch, [&]() REQUIRES(mutex_) { return !asked_.empty(); });
      }
      last = stop.stop_requested();
      records.swap(waiting_);
      asked.swap(asked_);
    }
    step(std::move(records), last ? LedgerWriter::When::now : LedgerWriter::When::due);
    for (const auto& work : asked) work();
    if (!last) continue;
    const base::Lock lock(mutex_);
    ended_ = waiting_.empty() && asked_.empty();
    if (ended_) return;
  }
}

void CallLedger::step(std::vector<ProxyCallRecord> records, LedgerWriter::When renewal) try {
  writer_.write(encoded(records));
  writer_.renew(renewal);
  publish();
} catch (const std::exception& error) {
  base::diagnose("proxy", std::string("the call ledger could not be written: ") + error.what());
  const base::Lock lock(mutex_);
  lost_ += static_cast<std::int64_t>(records.size());
}

void CallLedger::publish() {
  LedgerTrouble trouble = writer_.trouble();
  const base::Lock lock(mutex_);
  trouble_ = std::move(trouble);
  owes_ = writer_.owes();
}

template <typename Work>
auto CallLedger::onWriter(const Work& work) {
  const auto task = std::make_shared<std::packaged_task<decltype(work())()>>(work);
  auto result = task->get_future();
  bool here = false;
  {
    const base::Lock lock(mutex_);
    here = ended_;
    if (!here) asked_.emplace_back([task] { (*task)(); });
  }
  here ? (*task)() : changed_.notify_all();
  return result.get();
}

CallLedger::Reading CallLedger::read(const std::function<void(std::string_view)>& take) {
  const LedgerWriter::Snapshot snapshot = onWriter([this] {
    LedgerWriter::Snapshot now = writer_.snapshot();
    publish();
    return now;
  });
  const LedgerSeal none;
  SealCheck check(snapshot.seal ? *snapshot.seal : none);
  Reading reading;
  eachLine(snapshot.file, [&](std::string_view line) {
    ++reading.lines;
    check.line(line);
    take(line);
  });
  const SealCheck::Result result = check.finish();
  LedgerTrouble trouble;
  {
    const base::Lock lock(mutex_);
    trouble = trouble_;
    trouble.lost += lost_;
  }
  if (snapshot.seal) {
    trouble.dropped = snapshot.seal->dropped - result.leading;
    trouble.breaks = snapshot.seal->breaks;
    if (result.broken) trouble.breaks.push_back(*result.broken);
  }
  reading.notices = sentencesOf(trouble);
  return reading;
}

void CallLedger::look() {
  {
    const base::Lock lock(mutex_);
    if (ended_) return;
    // As a task, which keeps what it throws to itself.
    const auto task = std::make_shared<std::packaged_task<void()>>([this] {
      writer_.look();
      publish();
    });
    asked_.emplace_back([task] { (*task)(); });
  }
  changed_.notify_all();
}

std::vector<std::string> CallLedger::notices() const {
  const base::Lock lock(mutex_);
  LedgerTrouble trouble = trouble_;
  trouble.lost += lost_;
  return sentencesOf(trouble);
}

void CallLedger::flush() {
  onWriter([] {});
}

void CallLedger::stop() {
  {
    const base::Lock lock(mutex_);
    stopping_ = true;
  }
  const base::Lock lock(ending_);
  thread_.request_stop();
  if (thread_.joinable()) thread_.join();
}

}  // namespace sorvane::proxy
