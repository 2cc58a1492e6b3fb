#pragma once

#include <netinet/in.h>
#include <stdint.h>
#include <sys/param.h>
#include <sys/types.h>

#define PROC_PIDPATHINFO_MAXSIZE (4 * MAXPATHLEN)
#define PROC_PGRP_ONLY 2
#define PROC_UID_ONLY 4
#define PROC_PPID_ONLY 6
#define PROC_PIDLISTFDS 1
#define PROC_PIDFDSOCKETINFO 3
#define PROC_PIDFDPIPEINFO 6
#define PROX_FDTYPE_SOCKET 2
#define PROX_FDTYPE_PIPE 6
#define SOCKINFO_TCP 2
#define INI_IPV4 0x1
#define INI_IPV6 0x2
#define TSI_S_CLOSED 0
#define TSI_S_LISTEN 1
#define TSI_S_ESTABLISHED 4
#define TSI_T_NTIMERS 4
#define PROC_PIDTBSDINFO 3
#ifndef MAXCOMLEN
#define MAXCOMLEN 16
#endif

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

struct proc_fileinfo {
  uint32_t fi_openflags;
  uint32_t fi_status;
  off_t fi_offset;
  int32_t fi_type;
  uint32_t fi_guardflags;
};

struct in4in6_addr {
  uint32_t i46a_pad32[3];
  struct in_addr i46a_addr4;
};

struct in_sockinfo {
  int insi_fport;
  int insi_lport;
  uint64_t insi_gencnt;
  uint32_t insi_flags;
  uint32_t insi_flow;
  uint8_t insi_vflag;
  uint8_t insi_ip_ttl;
  uint32_t rfu_1;
  union {
    struct in4in6_addr ina_46;
    struct in6_addr ina_6;
  } insi_faddr, insi_laddr;
};

struct tcp_sockinfo {
  struct in_sockinfo tcpsi_ini;
  int tcpsi_state;
  int tcpsi_timer[TSI_T_NTIMERS];
  int tcpsi_mss;
  uint32_t tcpsi_flags;
  uint32_t rfu_1;
  uint64_t tcpsi_tp;
};

// Without the fields that nothing reads; on macOS the system's own header is taken.
struct socket_info {
  int soi_type;
  int soi_protocol;
  int soi_family;
  int soi_kind;
  union {
    struct in_sockinfo pri_in;
    struct tcp_sockinfo pri_tcp;
  } soi_proto;
};

struct socket_fdinfo {
  struct proc_fileinfo pfi;
  struct socket_info psi;
};

// The same.
struct pipe_info {
  uint64_t pipe_handle;
  uint64_t pipe_peerhandle;
  int pipe_status;
};

struct pipe_fdinfo {
  struct proc_fileinfo pfi;
  struct pipe_info pipeinfo;
};

int proc_listpids(uint32_t type, uint32_t argument, void* buffer, int size);
int proc_pidfdinfo(int process, int descriptor, int flavor, void* buffer, int size);
int proc_pidinfo(int process, int flavor, uint64_t argument, void* buffer, int size);
int proc_pidpath(int process, void* buffer, uint32_t size);

#ifdef __cplusplus
}
#endif
