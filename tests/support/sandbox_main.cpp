// kolta_sandbox: runs sandboxed daemons for tests written outside C++ (the
// Python client's tests, command-line tests).
//
//   kolta_sandbox [--count N] [--port P] [--daemon PATH] [--emulator COMMAND]
//                 [--empty-root SHELL] [--show-log]
//
// Starts N daemons (default 1), each in its own sandbox, and prints the TCP
// port of each on its own line of standard output, in order. They run until
// standard input reaches its end or the helper gets SIGTERM, SIGINT or SIGHUP;
// then every daemon is stopped and its sandbox removed.
//
// --port gives the (one) daemon port P instead of a free one, so that a test
// can start a daemon again where an earlier one listened.
// --daemon runs another koltad binary than the one built with the helper.
// --emulator runs the daemon through an emulator command, split at blanks:
//   kolta_sandbox --daemon build-armhf/server/koltad
//                 --emulator "qemu-arm -L /usr/arm-linux-gnueabihf"
// (one command line).
// --empty-root runs each daemon in an otherwise empty root with SHELL, a
// static shell, as its /bin/sh (a static daemon, and a static emulator).
// --show-log writes each daemon's standard output and standard error to
// standard error once all have stopped (a daemon that does not come up has
// them in its error message anyway).
//
// Exit status: 0 after a normal stop; 77 when sandboxes cannot be made here
// (no root or no namespaces; the reason is on standard error); 1 when a daemon
// did not come up; 2 on a usage error.
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/support/sandbox.h"

namespace {

constexpr int kExitUnavailable = 77;
constexpr int kMaxCount = 32;

int usage() {
  std::fputs(
      "usage: kolta_sandbox [--count N] [--port P] [--daemon PATH] [--emulator COMMAND]\n"
      "                     [--empty-root SHELL] [--show-log]\n"
      "       (1 <= N <= 32)\n",
      stderr);
  return 2;
}

std::vector<std::string> split_words(std::string_view text) {
  std::vector<std::string> words;
  std::size_t at = 0;
  while ((at = text.find_first_not_of(" \t", at)) != std::string_view::npos) {
    std::size_t end = text.find_first_of(" \t", at);
    if (end == std::string_view::npos) end = text.size();
    words.emplace_back(text.substr(at, end - at));
    at = end;
  }
  return words;
}

void show_log(int number, const kolta_test::Sandbox& sandbox) {
  std::fprintf(stderr, "--- daemon %d: standard output ---\n%s\n", number,
               sandbox.log(kolta_test::Sandbox::Log::out).c_str());
  std::fprintf(stderr, "--- daemon %d: standard error ---\n%s\n", number,
               sandbox.log(kolta_test::Sandbox::Log::err).c_str());
}

// Blocks until standard input ends or a stop signal arrives. The signals are
// blocked only now, after the daemons were forked, so that they do not
// inherit a blocked SIGTERM.
void wait_for_stop() {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGHUP);
  sigprocmask(SIG_BLOCK, &stop, nullptr);
  int sfd = signalfd(-1, &stop, SFD_CLOEXEC);
  if (sfd < 0) {
    std::perror("kolta_sandbox: signalfd");
    return;
  }
  pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {sfd, POLLIN, 0}};
  for (;;) {
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      std::perror("kolta_sandbox: poll");
      break;
    }
    if (fds[1].revents != 0) break;
    if (fds[0].revents != 0) {
      char discard[256];
      ssize_t n = read(STDIN_FILENO, discard, sizeof discard);
      if (n <= 0 && !(n < 0 && errno == EINTR)) break;  // end of input or a broken stdin
    }
  }
  close(sfd);
}

}  // namespace

int main(int argc, char** argv) {
  int count = 1;
  bool logs = false;
  kolta_test::SandboxOptions options;
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    if (arg == "--count" && i + 1 < argc) {
      char* end = nullptr;
      long n = std::strtol(argv[++i], &end, 10);
      if (*end != '\0' || n < 1 || n > kMaxCount) return usage();
      count = static_cast<int>(n);
    } else if (arg == "--port" && i + 1 < argc) {
      char* end = nullptr;
      long port = std::strtol(argv[++i], &end, 10);
      if (*end != '\0' || port < 1 || port > 65535) return usage();
      options.config = "port=" + std::to_string(port) + "\n";
    } else if (arg == "--daemon" && i + 1 < argc && argv[i + 1][0] != '\0') {
      options.daemon = argv[++i];
    } else if (arg == "--emulator" && i + 1 < argc) {
      options.emulator = split_words(argv[++i]);
      if (options.emulator.empty()) return usage();
    } else if (arg == "--empty-root" && i + 1 < argc && argv[i + 1][0] != '\0') {
      options.empty_root_shell = argv[++i];
    } else if (arg == "--show-log") {
      logs = true;
    } else {
      return usage();
    }
  }

  if (const std::string& why = kolta_test::sandbox_unavailable_reason(); !why.empty()) {
    std::fprintf(stderr, "kolta_sandbox: needs root and namespaces: %s\n", why.c_str());
    return kExitUnavailable;
  }

  std::vector<std::unique_ptr<kolta_test::Sandbox>> daemons;
  for (int i = 0; i < count; ++i) {
    auto sandbox = std::make_unique<kolta_test::Sandbox>();
    if (!sandbox->start(options)) {
      std::fprintf(stderr, "kolta_sandbox: daemon %d did not start: %s\n", i + 1,
                   sandbox->error().c_str());
      return 1;  // the destructors stop the daemons started so far
    }
    daemons.push_back(std::move(sandbox));
  }
  for (const auto& sandbox : daemons) {
    int port = sandbox->port();
    if (port == 0) std::sscanf(options.config.c_str(), "port=%d", &port);
    std::printf("%d\n", port);
  }
  std::fflush(stdout);

  wait_for_stop();
  // Each daemon's clean-up takes a few seconds: stop them side by side.
  std::vector<std::thread> stopping;
  for (auto& sandbox : daemons) stopping.emplace_back([&sandbox] { sandbox->stop(); });
  for (std::thread& t : stopping) t.join();
  if (logs) {
    for (std::size_t i = 0; i < daemons.size(); ++i) show_log(static_cast<int>(i) + 1, *daemons[i]);
  }
  return 0;
}
