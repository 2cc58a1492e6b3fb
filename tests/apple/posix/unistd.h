#pragma once

#include_next <unistd.h>

#ifdef __cplusplus
extern "C" {
#endif
int getpeereid(int socket, uid_t* user, gid_t* group);
#ifdef __cplusplus
}
#endif
