#pragma once

#include <stddef.h>
#include <sys/param.h>
#include <sys/time.h>
#include <sys/types.h>

#define CTL_KERN 1
#define KERN_PROC 14
#define KERN_PROC_PID 1
#ifndef MAXCOMLEN
#define MAXCOMLEN 16
#endif

#ifdef __cplusplus
extern "C" {
#endif

// The fields that are used, of many.
struct extern_proc {
  union {
    struct timeval __p_starttime;
  } p_un;
  pid_t p_pid;
  char p_comm[MAXCOMLEN + 1];
};
#define p_starttime p_un.__p_starttime

struct eproc {
  pid_t e_ppid;
};

struct kinfo_proc {
  struct extern_proc kp_proc;
  struct eproc kp_eproc;
};

int sysctl(int* name, unsigned int count, void* old, size_t* size, void* fresh, size_t freshSize);

#ifdef __cplusplus
}
#endif
