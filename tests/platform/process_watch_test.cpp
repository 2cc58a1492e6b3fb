#include "platform/linux/process_watch.h"

#include "support/process_watch_contract.h"

namespace sorvane::test {

INSTANTIATE_TYPED_TEST_SUITE_P(Pidfd, ProcessWatchContract, platform::PidfdWatch);

}  // namespace sorvane::test
