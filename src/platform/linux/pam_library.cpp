#include "platform/linux/pam_library.h"

#include <dlfcn.h>

#include <cstdlib>
#include <cstring>

namespace sorvane::platform {
namespace {

// The interface of libpam.so.0 (X/Open Single Sign-on Service as Linux-PAM numbers it), declared here because the
// library is loaded and not linked.
struct PamMessage {
  int style;
  const char* text;
};
struct PamResponse {
  char* text;
  int unused;
};
using PamConverse = int (*)(int count, const PamMessage** messages, PamResponse** responses, void* context);
struct PamConv {
  PamConverse converse;
  void* context;
};
struct PamHandle;

constexpr int kSuccess = 0, kBufferError = 5, kPermissionDenied = 6, kAuthError = 7, kUserUnknown = 10, kMaxTries = 11,
              kNewPasswordRequired = 12, kAccountExpired = 13, kConversationError = 19;
constexpr int kPromptEchoOff = 1, kPromptEchoOn = 2, kErrorMessage = 3, kTextInfo = 4;
/// More messages in one call than any module has.
constexpr int kMaxMessages = 32;

struct Library {
  int (*start)(const char* service, const char* user, const PamConv* conv, PamHandle** handle) = nullptr;
  int (*authenticate)(PamHandle* handle, int flags) = nullptr;
  int (*account)(PamHandle* handle, int flags) = nullptr;
  int (*end)(PamHandle* handle, int status) = nullptr;

  explicit operator bool() const {
    return start != nullptr && authenticate != nullptr && account != nullptr && end != nullptr;
  }
};

Library load() {
  Library library;
  void* const file = ::dlopen("libpam.so.0", RTLD_NOW | RTLD_LOCAL);
  if (file == nullptr) return library;
  const auto find = [file]<typename Function>(const char* name, Function& function) {
    function = reinterpret_cast<Function>(::dlsym(file, name));
  };
  find("pam_start", library.start);
  find("pam_authenticate", library.authenticate);
  find("pam_acct_mgmt", library.account);
  find("pam_end", library.end);
  return library;
}

/// Loaded once and never unloaded: modules leave threads and exit handlers behind.
const Library& library() {
  static const Library loaded = load();
  return loaded;
}

/// One talk between the modules and the person.
struct Talk {
  const PamConversation& conversation;
  int answered = 0;
};

/// The answers of one call. The library takes them over, wipes and frees them; what it never got is wiped here.
class Responses {
 public:
  explicit Responses(int count)
      : count_(count),
        list_(static_cast<PamResponse*>(std::calloc(static_cast<std::size_t>(count), sizeof(PamResponse)))) {}
  ~Responses() {
    for (int i = 0; list_ != nullptr && i < count_; ++i) {
      if (list_[i].text == nullptr) continue;
      base::wipe(list_[i].text, std::strlen(list_[i].text));
      std::free(list_[i].text);
    }
    std::free(list_);
  }
  Responses(const Responses&) = delete;
  Responses& operator=(const Responses&) = delete;

  bool isThere() const { return list_ != nullptr; }
  bool put(int index, const base::SecretText& answer) {
    auto* const copy = static_cast<char*>(std::calloc(answer.size() + 1, 1));
    if (copy == nullptr) return false;
    if (!answer.empty()) std::memcpy(copy, answer.view().data(), answer.size());
    list_[index].text = copy;
    return true;
  }
  PamResponse* release() { return std::exchange(list_, nullptr); }

 private:
  const int count_;
  PamResponse* list_;
};

int answerOne(Talk& talk, const PamMessage& message, Responses& responses, int index) {
  const std::string text = message.text == nullptr ? "" : message.text;
  if (message.style == kErrorMessage || message.style == kTextInfo) {
    talk.conversation.show(text);
    return kSuccess;
  }
  if (message.style != kPromptEchoOff && message.style != kPromptEchoOn) return kConversationError;
  const auto answer = talk.conversation.ask(text, message.style == kPromptEchoOn);
  if (!answer) return kConversationError;
  ++talk.answered;
  return responses.put(index, *answer) ? kSuccess : kBufferError;
}

int converse(int count, const PamMessage** messages, PamResponse** out, void* context) try {
  if (count <= 0 || count > kMaxMessages || messages == nullptr || out == nullptr) return kConversationError;
  Responses responses(count);
  if (!responses.isThere()) return kBufferError;
  for (int i = 0; i < count; ++i) {
    // Linux-PAM passes an array of pointers.
    const int result = answerOne(*static_cast<Talk*>(context), *messages[i], responses, i);
    if (result != kSuccess) return result;
  }
  *out = responses.release();
  return kSuccess;
} catch (const std::exception&) {
  return kConversationError;
}

PamResult resultOf(int status, const Talk& talk) {
  switch (status) {
    case kSuccess:
      return talk.answered > 0 ? PamResult::granted : PamResult::unasked;
    case kPermissionDenied:
    case kAuthError:
    case kUserUnknown:
    case kMaxTries:
    case kNewPasswordRequired:
    case kAccountExpired:
      return PamResult::notAccepted;
    default:
      return PamResult::failed;
  }
}

}  // namespace

bool isPamThere() {
  return static_cast<bool>(library());
}

PamResult pamAuthenticate(const std::string& service, const std::string& user, const PamConversation& conversation) {
  if (!library()) return PamResult::failed;
  Talk talk{conversation};
  const PamConv conv{&converse, &talk};
  PamHandle* handle = nullptr;
  if (library().start(service.c_str(), user.c_str(), &conv, &handle) != kSuccess) return PamResult::failed;
  int status = library().authenticate(handle, 0);
  if (status == kSuccess) status = library().account(handle, 0);
  library().end(handle, status);
  return resultOf(status, talk);
}

}  // namespace sorvane::platform
