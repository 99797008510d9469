// The request object a connection worker fills, the reply record `resp_obj`
// that every command handler fills, and the handler contract.
#pragma once

#include <cstdint>

#include "protocol/header.h"

inline constexpr int kCommandSize = 128;
inline constexpr int kArgumentSize = kValueSize;
inline constexpr int kReplyTextSize = 3456;
inline constexpr int kReplyTextBound = 128;  // what handlers and the dispatcher write
inline constexpr int kContentTypeSize = 128;
inline constexpr int kReaderBlockSize = 2048;
inline constexpr int kWriterErrorSize = 128;

enum reply_type : std::int16_t {
  kReplyFail = 0,
  kReplySuccess = 1,
  kReplyData = 2,
};

enum writer_op : int {
  kWriteBlock = 1,    // store a block
  kWriteEnd = 2,      // the body arrived in full
  kWriteDiscard = 3,  // a block or the end while the reply is already Fail
};

// Produces the next block of a Data reply into `buf` (room for `size` bytes);
// returns the bytes produced, 0 at the end, where it releases what it holds.
// Called with a `size` of 0 once the announced length has been sent, it ends
// early: releases what it holds as at the end and returns 0.
using reader_fn = int (*)(std::intptr_t ctx, char* buf, int size);

// Consumes a block of a request body (`op` from writer_op); returns 0, or
// non-zero with a message in `error_text` (room for `error_size` bytes).
using writer_fn = int (*)(int op, const char* buf, int len, char* error_text, int error_size);

struct vesk_request {
  char command[kCommandSize];  // value of the header's first line
  nv_header header;
};

struct resp_obj {
  std::int16_t type;  // reply_type
  char text[kReplyTextSize];
  std::int16_t rx_pending;
  struct {
    const void* ptr;  // nullptr: `reader` produces the data
    std::int64_t size;  // sent as the Content-length; 2 GiB and more on every platform
  } data;
  char content_type[kContentTypeSize];
  std::intptr_t reader_ctx;
  reader_fn reader;
  writer_fn writer;
};

// A command handler: reads its arguments, fills `resp`, and returns non-zero
// to keep the connection open for a further request, 0 to close it.
using command_fn = int (*)(vesk_request* request, resp_obj* resp);

// Copies the value of argument `name` (case-insensitive, last match wins)
// into `dst`. Returns 1 when the value is non-empty, else 0.
int svr_GetArgument(const vesk_request* request, const char* name, char (&dst)[kArgumentSize]);

// Makes `resp` a Fail reply with `reason`, bounded like every reason.
// Returns 1, the result of a handler that keeps the connection.
int reply_fail(resp_obj* resp, const char* reason);

// The same with a formatted reason. False when it did not fit.
bool reply_fail_format(resp_obj* resp, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Makes `resp` a text/plain Data reply of `text`, which must outlive the handler.
void reply_text(resp_obj* resp, const char* text);
