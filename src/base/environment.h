#pragma once

/// The variables of this process, of the C library. Not every system's unistd.h declares it.
extern char** environ;  // NOLINT(readability-redundant-declaration)
