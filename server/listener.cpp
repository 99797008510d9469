#include "server/listener.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "server/reaper.h"
#include "server/worker.h"
#include "server/worker_process.h"
#include "lib/system_texts.h"

namespace {

int g_listen_socket = -1;
unsigned short g_port = 10000;
sockaddr_in g_address{};
socklen_t g_address_length = 16;
command_fn g_command_handler = nullptr;

// Accepted connections beyond those the loop has taken wait here; with too
// few places, a burst of clients overflows the queue and the kernel resets
// connections that were already established.
constexpr int kListenBacklog = 64;

void broken_connection_handler(int /*sig*/) { broken_connection(); }

void child_reaper(int /*sig*/) { reap_children_logged("VESK_S"); }

}  // namespace

int svr_vesk_init(int /*debug_flag*/, command_fn handler, const char* port_text) {
  struct sigaction sa {};
  sa.sa_handler = broken_connection_handler;
  sigemptyset(&sa.sa_mask);
  if (sigaction(SIGPIPE, &sa, nullptr) != 0) {
    std::fputs("FATAL: SIGPIPE setup catch routine failed.\n", stderr);
  }
  g_port = static_cast<unsigned short>(std::strtol(port_text, nullptr, 10));
  if (init_network() != 0) return 1;
  g_command_handler = handler;
  return 0;
}

int init_network() {
  g_listen_socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (g_listen_socket < 0) {
    std::printf("error: cannot create socket");
    return 1;
  }
  int one = 1;
  if (setsockopt(g_listen_socket, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
      setsockopt(g_listen_socket, SOL_SOCKET, SO_REUSEPORT, &one, sizeof one) != 0) {
    std::printf("WARNING: cant set socket options REUSE_ADDR PORT !");
  }
  setsockopt(g_listen_socket, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);

  g_address.sin_family = AF_INET;
  g_address.sin_addr.s_addr = htonl(INADDR_ANY);
  g_address.sin_port = htons(g_port);
  if (::bind(g_listen_socket, reinterpret_cast<sockaddr*>(&g_address), sizeof g_address) != 0) {
    std::printf("error: can't bind protokoll to socket");
    return 1;
  }
  return 0;
}

int svr_vesk_run() {
  install_child_reaper(child_reaper);

  if (::listen(g_listen_socket, kListenBacklog) != 0) {
    std::fputs("listen error", stderr);
    return 1;
  }
  std::printf("Listening... ");
  std::fflush(stdout);

  for (;;) {
    g_address_length = sizeof g_address;
    // Programs that handlers start do not inherit the connection.
    int conn = ::accept4(g_listen_socket, reinterpret_cast<sockaddr*>(&g_address), &g_address_length,
                         SOCK_CLOEXEC);
    if (conn < 0) {
      // Out of descriptors or memory: let it pass instead of spinning.
      if (errno != EINTR && errno != ECONNABORTED) usleep(10000);
      continue;
    }
    std::printf("\nVESK_S: pid=%d Connection from (%s:%d)\n", getpid(), inet_ntoa(g_address.sin_addr),
                ntohs(g_address.sin_port));
    std::fflush(stdout);

    pid_t child = fork();
    if (child == 0) {
      // The worker has no use for the listening socket.
      ::close(g_listen_socket);
      serve_connection(conn, g_command_handler);
      std::fflush(stdout);
      std::fflush(stderr);
      _exit(0);
    }
    if (child < 0) {
      std::fprintf(stderr, "fork() failed: %s\n", error_text(errno));
    } else {
      // A worker that ended while this one was forked is collected and
      // logged by the reaper, as every other; the wait loop below only finds
      // one that ended in the moment since, and pauses for it.
      reap_children_logged("VESK_S");
      while (waitpid(-1, nullptr, WNOHANG) > 0) sleep(1);
    }
    ::close(conn);
    std::printf("VESK_S: pid=%d Connection closed.\n", getpid());
    std::fflush(stdout);
  }
}

int svr_vesk_deinit() {
  if (g_listen_socket >= 0) ::close(g_listen_socket);
  g_listen_socket = -1;
  return 0;
}

int svr_vesk_getLibVersion() { return 3; }
