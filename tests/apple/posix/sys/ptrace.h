#pragma once

#include <sys/types.h>

#define PT_DENY_ATTACH 31

#ifdef __cplusplus
extern "C" {
#endif
int ptrace(int request, pid_t process, caddr_t address, int data);
#ifdef __cplusplus
}
#endif
