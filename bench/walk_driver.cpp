// Walks a folder as an import does and prints how many .env files it found; walk_bench.py runs it beside its peers.
#include <cstdio>

#include "vault/import_walk.h"

int main(int count, char** arguments) {
  if (count != 2) {
    std::fputs("usage: walk_driver FOLDER\n", stderr);
    return 2;
  }
  std::printf("%zu\n", sorvane::vault::walkForEnvFiles(arguments[1]).files.size());
  return 0;
}
