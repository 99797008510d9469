// Output from signal handlers: format into a stack buffer and write(2) it,
// bypassing stdio, whose locks a handler must not take.
#pragma once

#include <cstddef>
#include <span>

void signal_safe_print(int fd, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
