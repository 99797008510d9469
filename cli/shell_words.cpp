#include "cli/shell_words.h"

#include <sys/random.h>

#include <cstdio>
#include <cstdint>
#include <ctime>
#include <unistd.h>

std::optional<std::string> splitter_args(std::span<const std::string> words, std::string* why) {
  constexpr std::size_t kMaxWords = 62;
  if (words.empty()) {
    *why = "no argument words";
    return std::nullopt;
  }
  if (words.size() > kMaxWords) {
    *why = std::to_string(words.size()) + " arguments; the daemon passes at most 62";
    return std::nullopt;
  }
  if (words.size() == 1 && words[0].empty()) {
    *why = "a single empty argument cannot be passed";
    return std::nullopt;
  }
  std::string out;
  for (std::size_t i = 0; i < words.size(); ++i) {
    bool quoted = false;
    for (char c : words[i]) {
      if (c == '"') {
        quoted = !quoted;
      } else if (c == ' ' && !quoted) {
        *why = "argument '" + words[i] +
               "': the daemon splits at its blank and keeps quotes (use kolta exec)";
        return std::nullopt;
      }
    }
    if (quoted && i + 1 < words.size()) {
      *why = "argument '" + words[i] + "': its open double quote would swallow the next blank";
      return std::nullopt;
    }
    if (i > 0) out.push_back(' ');
    out += words[i];
  }
  return out;
}

std::string random_name() {
  std::uint64_t bits = 0;
  if (getrandom(&bits, sizeof bits, 0) != static_cast<ssize_t>(sizeof bits)) {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    bits = static_cast<std::uint64_t>(ts.tv_nsec) * 0x9E3779B97F4A7C15ull ^
           static_cast<std::uint64_t>(getpid()) << 32 ^ static_cast<std::uint64_t>(ts.tv_sec);
  }
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(bits));
  return text;
}
