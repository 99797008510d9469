// Byte-level layer of the protocol: a buffered socket reader with one level
// of push-back, the block sender and two small file utilities.
//
// The reader's state is process-wide: every connection worker is its own
// process, so there is one stream per connection. The header reader, the
// body receiver and the client's reply reader share it in turn; each pushes
// back what belongs to the next reader.
#pragma once

#include <cstddef>

inline constexpr unsigned kStreamBufferSize = 64 * 1024;

// Hands out up to `max` bytes. While the buffer holds unread bytes, only
// those are handed out; otherwise one read(2) refills it. Returns the number
// of bytes, 0 when the peer has closed. A failed read ends the process with
// status 255.
unsigned rx_stream_read(int sock, char* dst, unsigned max);

// rx_stream_read for a caller that handles a failed read itself (the client):
// -1 with errno set instead of ending the process.
long rx_stream_read_or_fail(int sock, char* dst, unsigned max);

// What a failed read does to a connection worker: reports the system error
// and ends the process with status 255.
[[noreturn]] void rx_stream_read_failed();

// Gives the last `count` bytes handed out by the most recent read back to the
// buffer. Returns `count`, or 0 (changing nothing) when that is not possible.
unsigned rx_stream_unread(int sock, unsigned count);

// True while the buffer holds bytes that the next read hands out without
// touching the socket.
bool rx_stream_has_buffered();

// Forgets everything buffered (a fresh connection in the same process).
void rx_stream_reset();

// Writes `length` bytes of `buffer`, going on after partial writes. Returns
// the number written: `length`, less when the peer stopped taking data
// (write returned 0), or 0 when a write failed. 0 for a `length` of 0.
unsigned send_block(int sock, const void* buffer, unsigned length);

// Sends the whole buffer through send_block. False when the connection failed.
bool send_all(int sock, const void* buffer, std::size_t length);

// Size in bytes of the file at `path`, 64-bit on every platform; -1 when
// stat cannot see it.
long long ffilelength(const char* path);

// Prints "\nTIMEOUT".
void set_to();
