#include "platform/linux/polkit_text_agent.h"

#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <optional>
#include <thread>

#include "base/descriptor.h"
#include "base/system.h"
#include "base/unicode.h"
#include "platform/linux/agent_helper.h"
#include "platform/linux/bus_link.h"
#include "platform/shared/reason_text.h"

namespace sorvane::platform {
namespace {

using std::chrono::steady_clock;

constexpr char kAuthority[] = "org.freedesktop.PolicyKit1";
constexpr char kAgentInterface[] = "org.freedesktop.PolicyKit1.AuthenticationAgent";
constexpr char kAgentPath[] = "/org/sorvane/TextAgent";
constexpr char kAction[] = "org.sorvane.owner-check";
constexpr char kDismissed[] = "org.freedesktop.PolicyKit1.Error.Cancelled";
constexpr char kRefused[] = "org.freedesktop.PolicyKit1.Error.Failed";
/// polkit may have to be started first.
constexpr std::chrono::seconds kRegisterLimit{5};
/// How long the person may think.
constexpr std::chrono::seconds kAnswerLimit{120};

void writeSubject(BusWriter& out, const base::ProcessInfo& process) {
  out.align(8);
  out.text("unix-process");
  const auto words = out.begin();
  out.align(8);
  out.text("pid");
  out.signature("u");
  out.number(static_cast<std::uint32_t>(process.pid));
  out.align(8);
  out.text("start-time");
  out.signature("t");
  out.longNumber(process.startedAt);
  out.align(8);
  out.text("uid");
  out.signature("i");
  out.number(static_cast<std::uint32_t>(::geteuid()));
  out.end(words);
}

BusMessage toAuthority(const char* member, const char* signature, const BusWriter& body) {
  BusMessage message;
  message.path = "/org/freedesktop/PolicyKit1/Authority";
  message.interface = "org.freedesktop.PolicyKit1.Authority";
  message.destination = kAuthority;
  message.member = member;
  message.signature = signature;
  message.body = body.bytes();
  return message;
}

BusMessage answerTo(const BusMessage& call, BusMessage::Kind kind) {
  BusMessage answer;
  answer.kind = kind;
  answer.wantsReply = false;
  answer.replySerial = call.serial;
  answer.destination = call.sender;
  return answer;
}

BusMessage refusalOf(const BusMessage& call, const std::string& error, std::string_view sentence) {
  BusMessage answer = answerTo(call, BusMessage::Kind::error);
  BusWriter body;
  body.text(sentence);
  answer.error = error;
  answer.signature = "s";
  answer.body = body.bytes();
  return answer;
}

/// One question on the terminal, in a thread of its own.
class TerminalQuestion {
 public:
  /// `changed` becomes readable once it is over.
  TerminalQuestion(BusMessage call, AgentHelperTask task, const std::string& reason, const TerminalPrompt& terminal,
                   int changed)
      : call_(std::move(call)),
        cookie_(task.cookie),
        takenBack_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
        thread_([this, task = std::move(task), reason, terminal, changed] {
          try {
            ask(task, reason, terminal);
          } catch (const std::exception&) {
            // Without memory nobody was asked, and polkit is told no.
          }
          isOver_ = true;
          ::eventfd_write(changed, 1);
        }) {}
  ~TerminalQuestion() { end(); }
  TerminalQuestion(const TerminalQuestion&) = delete;
  TerminalQuestion& operator=(const TerminalQuestion&) = delete;

  const BusMessage& call() const { return call_; }
  const std::string& cookie() const { return cookie_; }
  void takeBack() {
    isTakenBack_ = true;
    ::eventfd_write(takenBack_.get(), 1);
  }
  /// Takes it back and waits for its thread.
  void end() {
    takeBack();
    if (thread_.joinable()) thread_.join();
  }
  bool isOver() const { return isOver_; }
  bool isTakenBack() const { return isTakenBack_; }
  /// Once it is over: whether nobody answered.
  bool wasDismissed() const { return givenUp_ || isTakenBack_; }

 private:
  void ask(const AgentHelperTask& task, const std::string& reason, const TerminalPrompt& terminal) {
    const auto deadline = steady_clock::now() + kAnswerLimit;
    terminal.show("\n" + reasonText(reason) + "\n");
    const PamConversation conversation{
        .ask = [&](const std::string& prompt, bool echo) -> std::optional<base::SecretText> {
          const auto mode = echo ? TerminalPrompt::Echo::yes : TerminalPrompt::Echo::no;
          auto answer = terminal.read(base::escapedForDisplay(prompt), mode, deadline, takenBack_.get());
          if (!answer) givenUp_ = true;
          return answer;
        },
        .show = [&](const std::string& text) { terminal.show(base::escapedForDisplay(text) + "\n"); }};
    runAgentHelper(task, conversation, takenBack_.get());
  }

  const BusMessage call_;
  const std::string cookie_;
  const base::Descriptor takenBack_;
  std::atomic<bool> givenUp_ = false, isTakenBack_ = false, isOver_ = false;
  std::thread thread_;
};

}  // namespace

/// What is there while polkit knows the agent: one thread that serves the bus.
class PolkitTextAgent::Agent {
 public:
  Agent(std::string reason, TerminalPrompt terminal)
      : reason_(std::move(reason)),
        terminal_(std::move(terminal)),
        helper_(agentHelperPath()),
        user_(accountName(::geteuid())),
        process_(base::processInfo(::getpid()).value_or(base::ProcessInfo{})),
        link_(steady_clock::now() + kRegisterLimit),
        changed_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
  ~Agent() {
    if (!thread_.joinable()) return;
    isLeaving_ = true;
    ::eventfd_write(changed_.get(), 1);
    thread_.join();
  }
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  /// Whether polkit took it; it is served from then on.
  bool enter() {
    if (helper_.empty() || user_.empty() || process_.pid == 0 || !link_) return false;
    BusWriter body;
    writeSubject(body, process_);
    body.text("C");
    body.text(kAgentPath);
    const auto answer = link_.call(toAuthority("RegisterAuthenticationAgent", "(sa{sv})ss", body),
                                   steady_clock::now() + kRegisterLimit);
    if (!answer || answer->kind != BusMessage::Kind::reply) return false;
    authority_ = answer->sender;
    sigset_t all, earlier;
    sigfillset(&all);
    // Signals are for the program's own thread.
    ::pthread_sigmask(SIG_SETMASK, &all, &earlier);
    thread_ = std::thread([this] {
      try {
        serve();
      } catch (const std::exception&) {
        // Without memory the agent goes; polkit notices when the connection closes.
      }
    });
    ::pthread_sigmask(SIG_SETMASK, &earlier, nullptr);
    return true;
  }

 private:
  void serve() {
    while (link_ && !isLeaving_) {
      if (const auto message = link_.receive(std::nullopt, changed_.get())) handle(*message);
      eventfd_t ignored = 0;
      ::eventfd_read(changed_.get(), &ignored);
      if (question_ && question_->isOver()) finish();
    }
    if (question_) {
      question_->end();
      finish();
    }
    BusWriter body;
    writeSubject(body, process_);
    body.text(kAgentPath);
    link_.call(toAuthority("UnregisterAuthenticationAgent", "(sa{sv})s", body),
               steady_clock::now() + std::chrono::seconds(1));
  }

  void handle(const BusMessage& message) {
    if (message.kind != BusMessage::Kind::call) return;
    const bool isForAgent = message.sender == authority_ && message.interface == kAgentInterface;
    if (isForAgent && message.member == "BeginAuthentication") return begin(message);
    if (isForAgent && message.member == "CancelAuthentication") return cancel(message);
    link_.send(refusalOf(message, "org.freedesktop.DBus.Error.UnknownMethod", "There is no such method here."));
  }

  void begin(const BusMessage& call) {
    // One that polkit took back may still be ending while polkit asks the next.
    if (question_ && question_->isTakenBack()) question_->end();
    if (question_ && question_->isOver()) finish();
    const auto asked = readAgentQuestion(call);
    if (!asked || asked->action != kAction) {
      link_.send(refusalOf(call, kRefused, "This agent answers for sorvane's own question only."));
    } else if (std::find(asked->users.begin(), asked->users.end(), ::geteuid()) == asked->users.end()) {
      link_.send(refusalOf(call, kRefused, "This agent asks for its own user's password only."));
    } else if (question_) {
      link_.send(refusalOf(call, kRefused, "Another question stands on this terminal."));
    } else {
      question_.emplace(call, AgentHelperTask{helper_, user_, asked->cookie}, reason_, terminal_, changed_.get());
    }
  }

  void cancel(const BusMessage& call) {
    BusReader in(call.body);
    const std::string cookie = call.signature == "s" ? in.text() : std::string();
    if (question_ && question_->cookie() == cookie) question_->takeBack();
    link_.send(answerTo(call, BusMessage::Kind::reply));
  }

  void finish() {
    link_.send(question_->wasDismissed() ? refusalOf(question_->call(), kDismissed, "Nobody answered.")
                                         : answerTo(question_->call(), BusMessage::Kind::reply));
    question_.reset();
  }

  // Constant after construction.
  const std::string reason_;
  const TerminalPrompt terminal_;
  const std::string helper_, user_;
  const base::ProcessInfo process_;
  // Of the constructing thread until `enter` has returned, then of thread_.
  BusLink link_;
  std::string authority_;
  // Own synchronisation.
  const base::Descriptor changed_;
  std::atomic<bool> isLeaving_ = false;
  // Of thread_.
  std::optional<TerminalQuestion> question_;
  std::thread thread_;
};

PolkitTextAgent::PolkitTextAgent(std::string reason, TerminalPrompt terminal) {
  // Root is never asked.
  if (::geteuid() == 0 || !terminal.isThere()) return;
  auto agent = std::make_unique<Agent>(std::move(reason), std::move(terminal));
  if (agent->enter()) agent_ = std::move(agent);
}

PolkitTextAgent::~PolkitTextAgent() = default;

}  // namespace sorvane::platform
