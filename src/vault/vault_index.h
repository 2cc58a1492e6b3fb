#pragma once

#include "vault/vault.h"

namespace sorvane::vault {

/// Fills the indexes of the secrets or of the projects anew; of two records with one key the first counts.
void indexSecrets(Records& records);
void indexProjects(Records& records);

}  // namespace sorvane::vault
