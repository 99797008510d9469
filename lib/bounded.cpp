#include "lib/bounded.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

bool bounded_copy(std::span<char> dst, std::string_view src) {
  if (dst.empty()) return src.empty();
  std::size_t n = src.size() < dst.size() ? src.size() : dst.size() - 1;
  std::memcpy(dst.data(), src.data(), n);
  dst[n] = '\0';
  return n == src.size();
}

bool bounded_append(std::span<char> dst, std::string_view src) {
  std::size_t used = bounded_length(dst);
  if (used >= dst.size()) return src.empty();
  return bounded_copy(dst.subspan(used), src);
}

bool bounded_format(std::span<char> dst, const char* fmt, ...) {
  if (dst.empty()) return false;
  va_list ap;
  va_start(ap, fmt);
  int n = std::vsnprintf(dst.data(), dst.size(), fmt, ap);
  va_end(ap);
  return n >= 0 && static_cast<std::size_t>(n) < dst.size();
}

std::size_t bounded_length(std::span<const char> buf) {
  const void* nul = std::memchr(buf.data(), '\0', buf.size());
  return nul ? static_cast<const char*>(nul) - buf.data() : buf.size();
}
