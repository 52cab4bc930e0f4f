// getprogname(): the program's name as it was started, without its folder.
// The C library of Linux has no such call, only the variable behind it.
#pragma once

#include <errno.h>

inline const char* getprogname() {
    return program_invocation_short_name;
}
