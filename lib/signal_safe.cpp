#include "lib/signal_safe.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <unistd.h>

void signal_safe_print(int fd, const char* fmt, ...) {
  int saved_errno = errno;
  char buf[512];
  va_list ap;
  va_start(ap, fmt);
  int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  if (n > 0) {
    std::size_t len = static_cast<std::size_t>(n) < sizeof buf ? n : sizeof buf - 1;
    std::size_t off = 0;
    while (off < len) {
      ssize_t w = ::write(fd, buf + off, len - off);
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) break;
      off += static_cast<std::size_t>(w);
    }
  }
  errno = saved_errno;
}
