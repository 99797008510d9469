// koltad: the remote process manager daemon.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "commands/setup.h"
#include "procman/requests.h"
#include "procman/task.h"
#include "server/cleanup.h"
#include "server/config.h"
#include "server/reaper.h"
#include "server/dispatcher.h"
#include "server/listener.h"

namespace {

constexpr std::size_t kLogBufferSize = 32 * 1024;

void Usage() { std::printf("Usage:\n-d .. enable network debugging"); }

// In force until the accept loop installs its own reaper.
void startup_child_reaper(int /*sig*/) { reap_children_logged("KOLTA"); }

}  // namespace

int main(int argc, char** argv) {
  // The log is written in large pieces, and flushed wherever a reader needs
  // it current: before every fork, before every wait that can last (for a
  // connection, a request, a body, a program, the process manager), after
  // each reply, and on the way out.
  std::setvbuf(stdout, nullptr, _IOFBF, kLogBufferSize);
  std::printf("KOLTA Linux Remote Process Manager V 05.00  %s %s (VESK)\n", __DATE__, __TIME__);
  std::printf("compiled-in options:\n");
  std::printf("( ) supports concurrent client processing\n");
  std::printf("( ) MULTITHREADED Clients.\n");
  std::printf("\n");
  int version = svr_vesk_getLibVersion();
  std::printf("VESK-Server Library Version: %02x.%02x\n", version >> 16, version & 0xff);

  int debug_flag = 0;
  int opt;
  while ((opt = getopt(argc, argv, "dhH")) != -1) {
    if (opt == 'd') {
      debug_flag = 1;
    } else {
      Usage();
      std::fflush(stdout);
      return 1;
    }
  }

  get_config(&configstruct, kConfigPath);
  if (svr_vesk_init(debug_flag, cmd_dispatcher, configstruct.port) != 0) {
    std::printf("init failed.\n");
    return 1;
  }
  std::fflush(stdout);
  std::signal(SIGCHLD, SIG_DFL);

  install_child_reaper(startup_child_reaper);
  install_cleanup_handlers();

  pid_t task = fork();
  if (task < 0) {
    std::printf("FATAL ERROR: can't fork %d.\n", task);
    return 1;
  }
  if (task == 0) {
    svr_vesk_deinit();  // the task and its programs have no use for the listening socket
    std::printf("%u ProcessManager Task started.\n", static_cast<unsigned>(getpid()));
    std::fflush(stdout);
    pm_run();
    std::printf("ProcessManager Task stopped.\n");
    std::fflush(stdout);
    std::exit(1);
  }
  gProcessManagerPid = task;
  init_kolta();

  svr_vesk_run();
  svr_vesk_deinit();
  kolta_cleanup(0);
}
