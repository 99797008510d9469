// kolta: drives koltad from a shell or a script, the way ssh and scp are
// used: one command, its output, an exit status a script can rely on.
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/fanout.h"
#include "cli/interrupt.h"
#include "cli/target.h"

#ifndef KOLTA_VERSION
#define KOLTA_VERSION "0"
#endif

namespace {

constexpr int kDefaultPort = 10000;
constexpr double kDefaultTimeoutSeconds = 30;

int usage_error(const std::string& message) {
  std::fprintf(stderr, "kolta: %s (kolta --help tells more)\n", message.c_str());
  return kExitUsage;
}

// Reads standard input to its end into a file of our own, for a command
// that takes it (the protocol has no streams). Its descriptor, or -1 with
// `*error` set; `*length` is 0 for an empty input or none at all.
int read_input(std::uint64_t* length, int* error) {
  *length = 0;
  *error = 0;
  int fd = ::memfd_create("kolta-input", MFD_CLOEXEC);
  if (fd < 0) {
    *error = errno;
    return -1;
  }
  static char block[256 * 1024];
  for (;;) {
    ssize_t n = ::read(STDIN_FILENO, block, sizeof block);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EBADF) break;  // no standard input at all: an empty one
    if (n < 0) {
      *error = errno;
      ::close(fd);
      return -1;
    }
    if (n == 0) break;
    for (ssize_t done = 0; done < n;) {
      ssize_t w = ::write(fd, block + done, static_cast<std::size_t>(n - done));
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) {
        *error = errno;
        ::close(fd);
        return -1;
      }
      done += w;
    }
    *length += static_cast<std::uint64_t>(n);
  }
  return fd;
}

const char* env(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && value[0] != '\0' ? value : nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  std::string hosts = env("KOLTA_HOST") ? env("KOLTA_HOST") : "";
  std::string port_text = env("KOLTA_PORT") ? env("KOLTA_PORT") : "";
  double timeout_s = kDefaultTimeoutSeconds;
  bool no_input = false;

  int i = 1;
  for (; i < argc && argv[i][0] == '-' && argv[i][1] != '\0'; ++i) {
    std::string_view opt = argv[i];
    if (opt == "--") {
      ++i;
      break;
    }
    if (opt == "-h" || opt == "--help") {
      print_overview(stdout);
      return kExitOk;
    }
    if (opt == "-n") {
      no_input = true;
      continue;
    }
    if (opt == "-V" || opt == "--version") {
      std::printf("kolta %s\n", KOLTA_VERSION);
      return kExitOk;
    }
    if (opt.size() >= 2 && (opt[1] == 'H' || opt[1] == 'p' || opt[1] == 't')) {
      std::string value;
      if (opt.size() > 2) {
        value = std::string(opt.substr(2));
      } else if (i + 1 < argc) {
        value = argv[++i];
      } else {
        return usage_error(std::string(opt) + " needs a value");
      }
      if (opt[1] == 'H') hosts = value;
      if (opt[1] == 'p') port_text = value;
      if (opt[1] == 't') {
        std::optional<double> t = parse_seconds(value);
        if (!t) return usage_error("-t needs a number of seconds, not '" + value + "'");
        timeout_s = *t;
      }
      continue;
    }
    return usage_error("unknown option " + std::string(opt));
  }
  if (i == argc) return usage_error("no command given");

  std::string_view name = argv[i++];
  if (name == "help") {
    if (i == argc) {
      print_overview(stdout);
      return kExitOk;
    }
    const command_spec* spec = find_command(argv[i]);
    if (spec == nullptr) return usage_error(std::string("unknown command '") + argv[i] + "'");
    print_command_help(*spec, stdout);
    return kExitOk;
  }
  const command_spec* spec = find_command(name);
  if (spec == nullptr) return usage_error("unknown command '" + std::string(name) + "'");

  int port = kDefaultPort;
  if (!port_text.empty()) {
    std::optional<int> p = parse_port(port_text);
    if (!p) return usage_error("bad port '" + port_text + "' (1 to 65535)");
    port = *p;
  }
  std::vector<target> targets;
  if (!hosts.empty()) {
    std::string why;
    auto parsed = parse_targets(hosts, port, &why);
    if (!parsed) return usage_error("bad host list: " + why);
    targets = std::move(*parsed);
  }

  command_args args;
  args.several_hosts = targets.size() > 1;
  std::string problem = parse_command_args(*spec, std::span(argv + i, argv + argc), &args);
  if (args.help) {
    print_command_help(*spec, stdout);
    return kExitOk;
  }
  if (!problem.empty()) return usage_error(problem);
  if (targets.empty()) return usage_error("no device given: use -H host or set KOLTA_HOST");

  // A command that takes standard input gets ours, read to its end first,
  // when it is not a terminal (as ssh does); -n gives it an empty one.
  args.no_input = args.no_input || no_input;
  if ((spec->options & kTakesInput) && !args.no_input && ::isatty(STDIN_FILENO) == 0) {
    int error = 0;
    args.input_fd = read_input(&args.input_length, &error);
    if (args.input_fd < 0) {
      std::fprintf(stderr, "kolta: cannot read standard input: %s\n", std::strerror(error));
      return kExitFail;
    }
  }

  // A broken pipe on our output is reported by the write, not by a signal
  // that would leave the device's temporary files behind.
  ::signal(SIGPIPE, SIG_IGN);
  catch_interrupts();
  int timeout_ms = static_cast<int>(std::lround(timeout_s * 1000));
  if (spec->run_all != nullptr) return spec->run_all(targets, timeout_ms, args);
  return run_on_all(targets, [&](const target& where) {
    command_args mine = args;
    mine.label = where.label;
    device dev(where, timeout_ms);
    return spec->run(dev, mine);
  });
}
