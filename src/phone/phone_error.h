#pragma once

#include "base/error.h"

namespace sorvane::phone {

/// The link to phones could not do what was asked. The sentence may be shown.
class PhoneError : public base::Error {
 public:
  using Error::Error;
};

}  // namespace sorvane::phone
