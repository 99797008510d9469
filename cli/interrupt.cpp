#include "cli/interrupt.h"

#include <signal.h>
#include <sys/socket.h>

#include <initializer_list>

namespace {

volatile sig_atomic_t g_signal = 0;
volatile sig_atomic_t g_socket = -1;

void on_interrupt(int sig) {
  if (g_signal == 0) g_signal = sig;
  int fd = g_socket;
  if (fd >= 0) ::shutdown(fd, SHUT_RDWR);  // async-signal-safe; ends the wait on it
}

void set_all(void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) ::sigaction(sig, &action, nullptr);
}

}  // namespace

void catch_interrupts() { set_all(on_interrupt); }
void ignore_interrupts() { set_all(SIG_IGN); }
int interrupt_signal() { return g_signal; }
void set_interruptible_socket(int fd) { g_socket = fd; }
