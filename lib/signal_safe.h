// Output from signal handlers: format into a stack buffer and write(2) it,
// bypassing stdio, whose locks a handler must not take.
#pragma once

#include <cstddef>
#include <span>

void signal_safe_print(int fd, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

inline constexpr std::size_t kSignalDescriptionSize = 32;

// The system's description of signal `sig` ("Terminated", "Real-time signal
// 2"), as strsignal gives it in the C locale, but safe to call from a
// handler. The text is either constant or formatted into `buf`.
const char* signal_description(int sig, std::span<char, kSignalDescriptionSize> buf);
