// system_texts_dump: prints the daemon's description of every error number
// and signal, one "error N TEXT" or "signal N TEXT" line each. With
// --c-library it prints the C library's own (strerror, strsignal) instead.
// The output of a static musl build's copy must equal the GNU C library's
// --c-library output: tools/check-static.sh compares the two.
#include <csignal>
#include <cstdio>
#include <cstring>

#include "lib/system_texts.h"

int main(int argc, char** argv) {
  const bool c_library = argc == 2 && std::strcmp(argv[1], "--c-library") == 0;
  if (argc > 1 && !c_library) {
    std::fputs("usage: system_texts_dump [--c-library]\n", stderr);
    return 2;
  }
  char buf[kSystemTextSize];
  for (int errnum = -1; errnum <= 200; ++errnum) {
    std::printf("error %d %s\n", errnum, c_library ? std::strerror(errnum) : error_text(errnum, buf));
  }
  for (int sig = 0; sig <= 66; ++sig) {
    std::printf("signal %d %s\n", sig, c_library ? strsignal(sig) : signal_text(sig, buf));
  }
  return 0;
}
