// Without a guard: the next header may be asked for several times, with other names wanted each time.
#include_next <stdio.h>

#ifndef RENAME_EXCL
#define RENAME_EXCL 0x00000004
#define RENAME_SWAP 0x00000002
#endif
#ifdef __cplusplus
extern "C" {
#endif
int renamex_np(const char* from, const char* to, unsigned int flags);
#ifdef __cplusplus
}
#endif
