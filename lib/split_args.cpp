#include "lib/split_args.h"

int split_arguments(char* text, std::span<char*> words) {
  int count = 0;
  char* p = text;
  while (static_cast<std::size_t>(count) < words.size()) {
    words[count++] = p;
    bool quoted = false;
    for (;; ++p) {
      if (*p == '\0') return count;
      if (*p == '"') {
        quoted = !quoted;
      } else if (*p == ' ' && !quoted) {
        *p++ = '\0';
        break;
      }
    }
  }
  return count;
}
