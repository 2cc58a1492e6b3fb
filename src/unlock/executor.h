#pragma once

#include <functional>

namespace sorvane::unlock {

/// Executor runs functions one after the other, in the order they came, on a thread of its own choice. `post` may be
/// called from any thread, from a function that it runs too. The functions do not throw.
class Executor {
 public:
  virtual ~Executor() = default;
  virtual void post(std::function<void()> function) = 0;
};

}  // namespace sorvane::unlock
