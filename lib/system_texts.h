// The daemon's own descriptions of error numbers and signals. Replies and log
// lines carry these texts, and they must read the same whichever C library the
// daemon was built with, so they come from one table here instead of
// strerror and strsignal. The texts are those of the GNU C library in the C
// locale ("No such file or directory", "Terminated", "Real-time signal 2",
// "Unknown error 200").
//
// The functions that take a buffer are safe in signal handlers: they read
// constant tables and format into the caller's buffer without stdio.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

inline constexpr std::size_t kSystemTextSize = 32;

// The description of error number `errnum`; either a constant text or one
// formatted into `buf`.
const char* error_text(int errnum, std::span<char, kSystemTextSize> buf);

// The same, formatting into a static buffer as strerror does: for code outside
// signal handlers.
const char* error_text(int errnum);

// The description of signal `sig`. Real-time signals are numbered from 34,
// as the GNU C library counts them, whatever the build's SIGRTMIN.
const char* signal_text(int sig, std::span<char, kSystemTextSize> buf);

// The signal whose description is `text`; 0 when none is.
int signal_from_text(std::string_view text);
