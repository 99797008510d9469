// The configuration reader on arbitrary file contents: the port text it
// yields always ends within its field and converts as the daemon converts it.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "lib/bounded.h"
#include "lib/unique_fd.h"
#include "server/config.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  unique_fd fd(memfd_create("kolta.conf", 0));
  if (!fd.ok()) return 0;
  if (size > 0 && write(fd.get(), data, size) != static_cast<ssize_t>(size)) return 0;
  const std::string path = "/proc/self/fd/" + std::to_string(fd.get());
  config read;
  if (get_config(&read, path.c_str()) != &read) __builtin_trap();
  if (bounded_length(read.port) >= sizeof read.port) __builtin_trap();
  static_cast<void>(std::strtol(read.port, nullptr, 10));
  return 0;
}
