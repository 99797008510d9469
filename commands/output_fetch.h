// The output fetch of "system_getDetails" and "execute_getDetails": the
// return code of the last run, or one of its two output files, which is
// deleted once it has been read.
#pragma once

#include <span>

#include "protocol/request.h"

inline constexpr std::size_t kOutputFetchMax = 65535;

struct output_files {
  const char* stdout_file;
  const char* stderr_file;
};

// Answers by the request's "src" (any case): "RC" gives `rc` as text,
// "STDOUT" (text/plain) and "STDERR" (text/ascii) up to 65535 bytes of their
// file. The reply body lives in `buffer`, which must outlive the handler.
// Returns 1.
int fetch_output(const vesk_request* request, resp_obj* resp, const output_files& files, int rc,
                 std::span<char> buffer);

// Reads up to `max` bytes of `path` into `buffer` (zero-filled first).
// Returns the bytes read, -1 when the file cannot be opened.
int read_output_file(const char* path, std::span<char> buffer, std::size_t max);
