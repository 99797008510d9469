// Bounded copy and format: never write past the destination, always leave it
// NUL-terminated (when it has room for anything at all), and report whether
// the whole text fitted, so that callers can refuse or end on truncation.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

// Copies `src` into `dst`. Returns false when `src` did not fit; `dst` then
// holds as much of it as fitted.
bool bounded_copy(std::span<char> dst, std::string_view src);

// Appends `src` to the NUL-terminated text in `dst`. Returns false on truncation.
bool bounded_append(std::span<char> dst, std::string_view src);

// snprintf into `dst`. Returns false on truncation or a formatting error.
bool bounded_format(std::span<char> dst, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));

// Length of the NUL-terminated text in `buf`, never reading past its end.
std::size_t bounded_length(std::span<const char> buf);

// Copies one fixed text field into another; the source need not be
// terminated within its field. False on truncation.
template <std::size_t N, std::size_t M>
bool copy_field(char (&dst)[N], const char (&src)[M]) {
  return bounded_copy(dst, std::string_view(src, bounded_length(src)));
}
