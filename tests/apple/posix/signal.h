#pragma once

#include_next <signal.h>

// Macros there, so that none of these takes a "::" before it.
#define sigaddset(set, number) ((sigaddset)(set, number), 0)
#define sigdelset(set, number) ((sigdelset)(set, number), 0)
#define sigismember(set, number) ((sigismember)(set, number) != 0)
#define sigemptyset(set) ((sigemptyset)(set), 0)
#define sigfillset(set) ((sigfillset)(set), 0)
