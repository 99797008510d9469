// What a client program needs beyond the basic calls: a connection to any
// host (name or address) with time limits, requests with a data body
// streamed from a descriptor, and replies whose Data body is streamed to a
// callback or a descriptor. Nothing here prints; every call reports how it
// ended.
//
// Replies are read through the protocol's process-wide stream, so one
// process reads from one connection at a time: open, exchange, close, then
// the next (a program that talks to several hosts at once forks).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "protocol/header.h"

enum class vesk_c_status {
  ok,
  resolve_failed,  // the host name did not resolve
  connect_failed,  // errno says why
  timed_out,       // no answer within the time limit
  closed,          // the peer closed before the exchange was complete
  io_error,        // a socket read or write failed (errno)
  bad_reply,       // the reply's header is not one of the three forms
  local_error,     // the local file or the caller's sink failed (errno)
};

// A short English text for `status` ("connection closed by the daemon", ...).
const char* vesk_c_status_text(vesk_c_status status);

struct vesk_c_conn {
  int fd = -1;
  int timeout_ms = 30000;  // connect, each reply header, and each wait while a body moves
  int error = 0;           // errno of the last failure
};

// Resolves `host` and connects to `port` within `timeout_ms`.
vesk_c_status vesk_c_connect(vesk_c_conn* conn, const char* host, int port, int timeout_ms);
void vesk_c_disconnect(vesk_c_conn* conn);

struct vesk_c_pair {
  const char* name;
  const char* value;
};

// Sends the request header: "Request: <command>", one line per argument in
// the order given, the empty line. A command, name or value that does not
// fit a header (127, 31 and 127 characters, no line ends) is refused before
// anything is sent: local_error with errno EINVAL.
vesk_c_status vesk_c_send_request(vesk_c_conn* conn, const char* command,
                                  std::span<const vesk_c_pair> args);

// Called as a body moves: bytes so far and in all.
using vesk_c_progress_fn = void (*)(void* ctx, std::uint64_t done, std::uint64_t total);

// Sends `length` bytes read from `src_fd` as a request's data body, in large
// blocks. A source that ends early is local_error.
vesk_c_status vesk_c_send_body(vesk_c_conn* conn, int src_fd, std::uint64_t length,
                               vesk_c_progress_fn progress = nullptr, void* progress_ctx = nullptr);

enum class vesk_c_reply_kind { success, fail, data };

struct vesk_c_reply {
  vesk_c_reply_kind kind;
  char reason[kValueSize];        // of a Fail reply, exactly as sent
  char content_type[kValueSize];  // of a Data reply
  std::uint64_t content_length;   // of a Data reply
  nv_header header;               // every line as read
};

// Reads one reply header. A Data reply's body follows: read it with
// vesk_c_read_body before anything else is read from the connection.
vesk_c_status vesk_c_read_reply(vesk_c_conn* conn, vesk_c_reply* reply);

// Takes one piece of a body; false stops the transfer (local_error).
using vesk_c_sink_fn = bool (*)(void* ctx, const char* data, std::size_t length);

// Reads exactly the announced body of the Data reply `reply`, in pieces.
vesk_c_status vesk_c_read_body(vesk_c_conn* conn, const vesk_c_reply& reply, vesk_c_sink_fn sink,
                               void* sink_ctx, vesk_c_progress_fn progress = nullptr,
                               void* progress_ctx = nullptr);

// The same, written whole to `out_fd`.
vesk_c_status vesk_c_read_body_to_fd(vesk_c_conn* conn, const vesk_c_reply& reply, int out_fd,
                                     vesk_c_progress_fn progress = nullptr,
                                     void* progress_ctx = nullptr);
