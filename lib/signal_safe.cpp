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

const char* signal_description(int sig, std::span<char, kSignalDescriptionSize> buf) {
  if (const char* text = sigdescr_np(sig); text != nullptr) return text;
  // The real-time signals are numbered from the first one the C library
  // leaves to applications.
  if (sig >= SIGRTMIN && sig <= SIGRTMAX) {
    std::snprintf(buf.data(), buf.size(), "Real-time signal %d", sig - SIGRTMIN);
  } else {
    std::snprintf(buf.data(), buf.size(), "Unknown signal %d", sig);
  }
  return buf.data();
}
