// text2md5sig on arbitrary text: it accepts a text that starts with 32
// hexadecimal digits (either case), and they print back as the same digits.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <strings.h>

#include "lib/md5.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);  // ends at its first NUL
  std::uint8_t sig[16] = {};
  const int r = text2md5sig(text.c_str(), sig);

  const std::string seen = std::string(text.c_str()).substr(0, 32);
  bool hex32 = seen.size() == 32;
  for (char c : seen) hex32 = hex32 && std::isxdigit(static_cast<unsigned char>(c)) != 0;
  if ((r == 0) != hex32) __builtin_trap();
  if (r != 0) return 0;

  char back[33];
  for (int i = 0; i < 16; ++i) std::snprintf(back + 2 * i, 3, "%02X", sig[i]);
  if (strcasecmp(back, seen.c_str()) != 0) __builtin_trap();
  return 0;
}
