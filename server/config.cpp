#include "server/config.h"

#include <cstdio>
#include <cstring>

#include "lib/unique_fd.h"

config configstruct;

config* get_config(config* dst, const char* path) {
  config read{};
  unique_file fp(std::fopen(path, "r"));
  if (fp) {
    char line[kConfigPortSize];
    while (std::fgets(line, sizeof line, fp.get()) != nullptr) {
      if (line[0] == '#') {
        std::printf("Comment\n");
        continue;
      }
      if (std::strstr(line, "port") == nullptr) continue;
      const char* equals = std::strchr(line, '=');
      if (equals == nullptr) continue;  // a port line without a value means nothing
      std::size_t value_len = std::strlen(equals + 1);
      if (value_len == 0) continue;
      std::size_t n = value_len - 1;
      if (n > sizeof read.port) n = sizeof read.port;
      std::memcpy(read.port, equals + 1, n);
    }
  }
  *dst = read;
  return dst;
}
