// Output from signal handlers: format into a stack buffer and write(2) it,
// bypassing stdio, whose locks a handler must not take.
#pragma once

void signal_safe_print(int fd, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// The system's description of signal `sig` ("Terminated"), as strsignal gives
// it in the C locale, but safe to call from a handler.
const char* signal_description(int sig);
