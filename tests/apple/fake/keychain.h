#pragma once

#include <Security/Security.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace sorvane::test::apple {

/// One call of the item functions as it was made: the function's name, then each attribute's name and value in words.
struct ItemCall {
  std::string function;
  std::map<std::string, std::string> query;
  std::map<std::string, std::string> change;  ///< of SecItemUpdate
};

/// FakeKeychain is the Keychain of this test program while it lives, empty at first: items in memory, found by class,
/// service, account, access group and domain as the documentation has it. A query that does not say its domain reaches
/// both. At the end of its life every object that was made must be gone. One at a time; the item functions are safe
/// from any thread, the rest is for a test whose threads have ended.
class FakeKeychain {
 public:
  FakeKeychain();
  /// Fails the test when an object is left.
  ~FakeKeychain();
  FakeKeychain(const FakeKeychain&) = delete;
  FakeKeychain& operator=(const FakeKeychain&) = delete;

  enum class Domain { legacy, dataProtection };
  struct Item {
    Domain domain = Domain::legacy;
    std::string service, account, group, accessible;
    std::string value;
    bool operator==(const Item&) const = default;
  };

  /// The process is signed for these groups.
  std::vector<std::string> groups{"TEAM.app.sorvane"};
  /// False: the process has no such entitlement at all.
  bool hasGroups = true;

  /// Puts an item in as another program would.
  void put(Item item);
  std::vector<Item> items(Domain domain) const;

  /// Decides the outcome of calls: given the number of the call, from 1, a status other than errSecSuccess is what the
  /// call returns. `after` are asked when the call took effect, as one that answers when its program is gone.
  std::function<OSStatus(int number)> before, after;
  /// Called within SecItemUpdate and before it decides, as what another program does meanwhile.
  std::function<void()> meanwhile;
  /// What SecItemCopyMatching gives in place of an answer; it is handed over.
  std::function<CFTypeRef()> answer;

  int calls() const;
  /// The calls since this was last asked.
  std::vector<ItemCall> takeCalls();
};

}  // namespace sorvane::test::apple
