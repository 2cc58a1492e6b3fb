#pragma once

#include <string>

namespace sorvane::agent {

/// Notifier shows the owner that something happened. Never blocks for long, never throws, never gets a secret value;
/// silent where the system has no notifications. Any thread.
class Notifier {
 public:
  virtual ~Notifier() = default;
  virtual void notify(const std::string& title, const std::string& body) = 0;
};

}  // namespace sorvane::agent
