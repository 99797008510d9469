#include "cli/lease_commands.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cli/clock.h"
#include "cli/device.h"
#include "cli/exit_status.h"
#include "cli/interrupt.h"
#include "cli/output.h"
#include "client/lease.h"

namespace {

constexpr double kDefaultWaitS = 600;
constexpr double kDefaultTtlS = 60;

// One operation on one device over a connection of its own. False (with
// the message in `*error`) when the device could not be asked.
bool call(const target& where, int timeout_ms, const std::string& command,
          vesk_c_lease_state* state, std::string* error) {
  int limit = timeout_ms > 0 ? timeout_ms : 30000;
  vesk_c_conn conn;
  std::string problem;
  vesk_c_status s = vesk_c_connect(&conn, where.host.c_str(), where.port, limit);
  if (s == vesk_c_status::ok)
    s = vesk_c_lease_call(&conn, where.host.c_str(), where.port, command, state, &problem);
  int saved = conn.error;
  vesk_c_disconnect(&conn);
  if (s == vesk_c_status::ok) return true;
  if (problem.empty()) {
    problem = vesk_c_status_text(s);
    if (saved != 0 && (s == vesk_c_status::connect_failed || s == vesk_c_status::io_error))
      problem += std::string(" (") + std::strerror(saved) + ")";
  }
  *error = endpoint_text(where) + ": " + problem;
  return false;
}

// Sleeps `ms`, or less when a signal comes. False once one has come.
bool pause_ms(std::int64_t ms) {
  if (interrupt_signal() != 0) return false;
  ::poll(nullptr, 0, static_cast<int>(ms));
  return interrupt_signal() == 0;
}

struct held {
  target where;
  std::string token;
  bool nested = false;  // an enclosing holder's lease: it renews and releases it
};

// Takes the lease of the first free device, trying them all in turn until
// `wait_s` has passed. Prints the holders and returns false when none was
// free (or a signal came).
bool take_one(const std::vector<target>& targets, int timeout_ms, double ttl_s, double wait_s,
              const std::string& owner, held* got) {
  std::int64_t deadline = monotonic_ms() + static_cast<std::int64_t>(wait_s * 1000);
  std::int64_t pause = 200;
  std::string mine = vesk_c_lease_own_tokens();
  for (;;) {
    std::string holders;
    for (const target& where : targets) {
      std::string token = vesk_c_lease_token(), error;
      vesk_c_lease_state state;
      std::string text;
      if (!call(where, timeout_ms, vesk_c_lease_command("take", token, ttl_s, owner, mine),
                &state, &error)) {
        text = "not reachable: " + error;
      } else if (state.result == "took" || state.result == "own") {
        *got = {where, state.result == "own" ? state.token : token, state.result == "own"};
        return true;
      } else {
        text = vesk_c_lease_holder_text(state);
      }
      holders += (holders.empty() ? "" : "; ") + where.label + ": " + text;
      if (interrupt_signal() != 0) return false;
    }
    std::int64_t left = deadline - monotonic_ms();
    if (left <= 0) {
      print_error("no device was free within " + seconds_text(wait_s) + " (" + holders + ")");
      return false;
    }
    if (!pause_ms(pause < left ? pause : left)) return false;
    pause = pause * 3 / 2 < 2000 ? pause * 3 / 2 : 2000;
  }
}

pid_t start_command(const held& lease, const std::vector<std::string>& words) {
  pid_t pid = ::fork();
  if (pid != 0) return pid;
  for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) ::signal(sig, SIG_DFL);
  ::setenv("KOLTA_HOST", lease.where.host.c_str(), 1);
  ::setenv("KOLTA_PORT", std::to_string(lease.where.port).c_str(), 1);
  std::string tokens = vesk_c_lease_own_tokens();
  if (!lease.nested) tokens = tokens.empty() ? lease.token : lease.token + " " + tokens;
  ::setenv(kLeaseTokenEnv, tokens.c_str(), 1);
  std::vector<char*> argv;
  for (const std::string& w : words) argv.push_back(const_cast<char*>(w.c_str()));
  argv.push_back(nullptr);
  ::execvp(argv[0], argv.data());
  std::fprintf(stderr, "kolta: %s: %s\n", argv[0], std::strerror(errno));
  ::_exit(errno == ENOENT ? 127 : 126);
}

// Waits for the command, renewing the lease every third of its ttl. A
// SIGTERM or SIGHUP to kolta is passed on to the command (a Ctrl-C reaches
// it from the terminal).
int wait_renewing(pid_t pid, const held& lease, int timeout_ms, double ttl_s,
                  const std::string& owner) {
  int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  std::int64_t period = static_cast<std::int64_t>(ttl_s * 1000 / 3);
  if (period < 500) period = 500;
  std::int64_t next = monotonic_ms() + period;
  bool passed_on = false, lost = false;
  int status = 0;
  for (;;) {
    pid_t done = ::waitpid(pid, &status, WNOHANG);
    if (done == pid) break;
    int sig = interrupt_signal();
    if (sig != 0 && !passed_on) {
      passed_on = true;
      if (sig != SIGINT) ::kill(pid, sig);
    }
    std::int64_t now = monotonic_ms();
    if (now >= next && !lease.nested && !lost) {
      next = now + period;
      vesk_c_lease_state state;
      std::string error;
      if (!call(lease.where, timeout_ms, vesk_c_lease_command("renew", lease.token, ttl_s, owner, ""),
                &state, &error)) {
        print_error(error + " (the lease could not be renewed; trying again)");
      } else if (state.result != "renewed" && state.result != "took") {
        lost = true;
        print_error(lease.where.label + ": the lease was lost to " +
                    vesk_c_lease_holder_text(state));
      }
      continue;
    }
    int wait = static_cast<int>(next - now);
    if (lease.nested || lost) wait = -1;
    if (pidfd >= 0) {
      pollfd p{pidfd, POLLIN, 0};
      ::poll(&p, 1, wait);
    } else {
      ::poll(nullptr, 0, wait < 0 || wait > 200 ? 200 : wait);  // no pidfd: look again shortly
    }
  }
  if (pidfd >= 0) ::close(pidfd);
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return kExitFail;
}

int break_all(const std::vector<target>& targets, int timeout_ms) {
  int worst = kExitOk;
  for (const target& where : targets) {
    vesk_c_lease_state state;
    std::string error;
    if (!call(where, timeout_ms, vesk_c_lease_command("break", "", 0, "", ""), &state, &error)) {
      print_error(error);
      worst = kExitConnection;
    } else if (state.result == "broke") {
      std::printf("%s: broke the lease of %s\n", where.label.c_str(),
                  state.owner.empty() ? "an unknown holder" : state.owner.c_str());
    } else if (state.result == "free") {
      std::printf("%s: free\n", where.label.c_str());
    } else {
      print_error(where.label + ": the lease is being changed by someone else; try again");
      worst = kExitFail;
    }
  }
  return worst;
}

}  // namespace

int run_lease(const std::vector<target>& targets, int timeout_ms, const command_args& args) {
  if (args.break_lease) return break_all(targets, timeout_ms);
  double wait_s = args.wait ? *parse_seconds(*args.wait) : kDefaultWaitS;
  double ttl_s = args.ttl ? *parse_limit(*args.ttl) : kDefaultTtlS;
  std::string owner = vesk_c_lease_default_owner();
  held lease;
  if (!take_one(targets, timeout_ms, ttl_s, wait_s, owner, &lease))
    return interrupt_signal() != 0 ? 128 + interrupt_signal() : kExitConnection;
  std::fflush(nullptr);
  pid_t pid = start_command(lease, args.words);
  int status = pid < 0 ? kExitFail : wait_renewing(pid, lease, timeout_ms, ttl_s, owner);
  if (pid < 0) print_error(std::string("cannot start the command: ") + std::strerror(errno));
  if (!lease.nested) {
    vesk_c_lease_state state;
    std::string error;
    if (!call(lease.where, timeout_ms, vesk_c_lease_command("release", lease.token, 0, "", ""),
              &state, &error))
      print_error(error + " (the lease could not be released; it ends after its ttl)");
  }
  return status;
}

int run_leases(const std::vector<target>& targets, int timeout_ms, const command_args&) {
  int worst = kExitOk;
  for (const target& where : targets) {
    vesk_c_lease_state s;
    std::string error;
    if (!call(where, timeout_ms, vesk_c_lease_command("show", "", 0, "", ""), &s, &error)) {
      std::printf("%s: not reachable: %s\n", where.label.c_str(), error.c_str());
      worst = kExitConnection;
      continue;
    }
    if (s.result == "free") {
      std::printf("%s: free\n", where.label.c_str());
      continue;
    }
    std::string line = where.label + ": " + (s.owner.empty() ? "an unknown holder" : s.owner);
    if (s.taken >= 0) line += ", held " + std::to_string(s.now - s.taken) + " s";
    if (s.expires >= 0)
      line += s.expires > s.now ? ", " + std::to_string(s.expires - s.now) + " s left"
                                : ", expired";
    std::printf("%s\n", line.c_str());
  }
  return worst;
}
