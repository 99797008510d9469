#include "server/worker_process.h"

#include <cstdio>
#include <unistd.h>

#include "lib/signal_safe.h"

namespace {

constexpr char kBang61[] = "!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!";
static_assert(sizeof kBang61 - 1 == 61);

}  // namespace

void end_worker(int status) {
  std::fflush(stdout);
  std::fflush(stderr);
  _exit(status);
}

void broken_connection() {
  // Called where a write to the peer failed (or raised SIGPIPE), never from
  // inside a stdio call: the lines held so far go out before the block.
  std::fflush(stdout);
  signal_safe_print(STDOUT_FILENO,
                    "%s\nVESK_S: pid=%d NETWORK CONNECTION BROKEN !!!\n"
                    "        ->check VESK-Timeout settings at client side !!!\n"
                    "        The clients should't exit during communication.\n"
                    "        I've a timeout parameter for this !\n%s\n",
                    kBang61, getpid(), kBang61);
  _exit(1);
}

void pause_before_data_body() { usleep(20000); }
