#pragma once

#include <stdint.h>
#include <sys/param.h>
#include <sys/types.h>

#define PROC_PIDPATHINFO_MAXSIZE (4 * MAXPATHLEN)
#define PROC_PIDLISTFDS 1
#define PROC_PIDTBSDINFO 3
#define MAXCOMLEN 16

#ifdef __cplusplus
extern "C" {
#endif

struct proc_bsdinfo {
  uint32_t pbi_flags;
  uint32_t pbi_status;
  uint32_t pbi_xstatus;
  uint32_t pbi_pid;
  uint32_t pbi_ppid;
  uid_t pbi_uid;
  gid_t pbi_gid;
  uid_t pbi_ruid;
  gid_t pbi_rgid;
  uid_t pbi_svuid;
  gid_t pbi_svgid;
  uint32_t rfu_1;
  char pbi_comm[MAXCOMLEN];
  char pbi_name[2 * MAXCOMLEN];
  uint32_t pbi_nfiles;
  uint32_t pbi_pgid;
  uint32_t pbi_pjobc;
  uint32_t e_tdev;
  uint32_t e_tpgid;
  int32_t pbi_nice;
  uint64_t pbi_start_tvsec;
  uint64_t pbi_start_tvusec;
};

struct proc_fdinfo {
  int32_t proc_fd;
  uint32_t proc_fdtype;
};

int proc_pidinfo(int process, int flavor, uint64_t argument, void* buffer, int size);
int proc_pidpath(int process, void* buffer, uint32_t size);

#ifdef __cplusplus
}
#endif
