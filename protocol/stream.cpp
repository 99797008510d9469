#include "protocol/stream.h"
#include "lib/system_texts.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct rx_stream {
  int state = 0;  // 1: the buffer holds unread bytes; anything else: empty
  char buffer[kStreamBufferSize];
  unsigned current = 0;
  unsigned end = 0;
  unsigned last_count = 0;
};

rx_stream g_stream;

}  // namespace

unsigned rx_stream_read(int sock, char* dst, unsigned max) {
  long got = rx_stream_read_or_fail(sock, dst, max);
  if (got < 0) rx_stream_read_failed();
  return static_cast<unsigned>(got);
}

void rx_stream_read_failed() {
  std::fprintf(stderr, "EXCEPTION: rx_stream_read: init-state: %s\n", error_text(errno));
  std::fputs("Connection interrupted during read\n", stderr);
  std::exit(255);
}

long rx_stream_read_or_fail(int sock, char* dst, unsigned max) {
  rx_stream& s = g_stream;
  if (s.state == 1) {
    unsigned avail = s.end - s.current;
    unsigned n = std::min(avail, max);
    std::memcpy(dst, s.buffer + s.current, n);
    s.current += n;
    s.last_count = n;
    if (avail >= 1) return n;
    s.state = 0;
  }

  ssize_t got;
  do {
    got = ::read(sock, s.buffer, sizeof s.buffer);
  } while (got < 0 && errno == EINTR);
  if (got < 0) return -1;

  s.end = static_cast<unsigned>(got);
  unsigned n = std::min(max, s.end);
  std::memcpy(dst, s.buffer, n);
  s.current = n;
  s.last_count = n;
  if (n > 0) s.state = 1;
  return n;
}

unsigned rx_stream_unread(int /*sock*/, unsigned count) {
  rx_stream& s = g_stream;
  if (s.state != 1 || count > s.last_count) return 0;
  s.current -= count;
  s.last_count = 0;  // only the most recent read, and only once
  return count;
}

bool rx_stream_has_buffered() { return g_stream.state == 1 && g_stream.current < g_stream.end; }

void rx_stream_reset() { g_stream = rx_stream{}; }

unsigned send_block(int sock, const void* buffer, unsigned length) {
  if (length == 0) return 0;
  const char* p = static_cast<const char*>(buffer);
  unsigned sum = 0;
  while (sum < length) {
    ssize_t w = ::write(sock, p + sum, length - sum);
    if (w < 0 && errno == EINTR) continue;
    if (w < 0) return 0;
    if (w == 0) break;
    sum += static_cast<unsigned>(w);
  }
  return sum;
}

bool send_all(int sock, const void* buffer, std::size_t length) {
  const char* p = static_cast<const char*>(buffer);
  while (length > 0) {
    unsigned chunk = length > 0x40000000u ? 0x40000000u : static_cast<unsigned>(length);
    unsigned sent = send_block(sock, p, chunk);
    if (sent == 0) return false;
    p += sent;
    length -= sent;
  }
  return true;
}

long long ffilelength(const char* path) {
  struct stat st;
  if (::stat(path, &st) != 0) return -1;
  return static_cast<long long>(st.st_size);
}

void set_to() { std::printf("\nTIMEOUT"); }
