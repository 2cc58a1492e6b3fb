#pragma once

#include_next <netinet/in.h>

#include <stdint.h>

// Macros there, so that none of these takes a "::" before it.
#undef htons
#undef htonl
#undef ntohs
#undef ntohl
#define htons(value) ((uint16_t)(htons)(value))
#define htonl(value) ((uint32_t)(htonl)(value))
#define ntohs(value) ((uint16_t)(ntohs)(value))
#define ntohl(value) ((uint32_t)(ntohl)(value))
