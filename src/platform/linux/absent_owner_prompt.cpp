#include "platform/linux/absent_owner_prompt.h"

namespace sorvane::platform {

agent::SystemOwnerPrompt::Answer AbsentOwnerPrompt::ask(const agent::OwnerApprovalPrompt&,
                                                        const agent::ApprovalContext&) {
  return {false,
          "a request was denied: nobody answered on a terminal, and this system has no owner prompt that sorvane can "
          "use. Nothing was shared. Run sorvaned in a terminal and answer there."};
}

}  // namespace sorvane::platform
