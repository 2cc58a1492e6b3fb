#pragma once

#include_next <netinet/tcp.h>

#define TCP_KEEPALIVE 0x10
#define TCP_RXT_CONNDROPTIME 0x80
