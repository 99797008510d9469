#include "cli/commands.h"

#include <fcntl.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>

#include "cli/device_commands.h"
#include "cli/exit_status.h"
#include "cli/lease_commands.h"
#include "cli/process_commands.h"
#include "cli/remote_run.h"
#include "cli/transfer.h"

namespace {

std::string no_check(const command_args&) { return {}; }

bool is_number(const std::string& text) {
  int value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  return ec == std::errc() && end == text.data() + text.size();
}

std::string check_timeout(const command_args& a) {
  if (a.timeout && !parse_seconds(*a.timeout))
    return "--timeout needs a number of seconds, not '" + *a.timeout + "'";
  return {};
}

std::string check_pid(const command_args& a) {
  if (!is_number(a.words[0])) return "PID must be a number, not '" + a.words[0] + "'";
  return check_timeout(a);
}

std::string check_output(const command_args& a) {
  if (a.words.size() > 1 && a.words[1] != "stdout" && a.words[1] != "stderr")
    return "the stream is stdout or stderr, not '" + a.words[1] + "'";
  return check_pid(a);
}

std::string check_run(const command_args& a) {
  if (a.timeout && !parse_limit(*a.timeout))
    return "--timeout needs a number of seconds above 0, not '" + *a.timeout + "'";
  return {};
}

std::string check_lease(const command_args& a) {
  if (a.wait && !parse_seconds(*a.wait))
    return "--wait needs a number of seconds, not '" + *a.wait + "'";
  if (a.ttl && !parse_limit(*a.ttl))
    return "--ttl needs a number of seconds above 0, not '" + *a.ttl + "'";
  if (a.break_lease && !a.words.empty()) return "lease --break takes no command";
  if (!a.break_lease && a.words.empty()) return "usage: kolta [options] lease [--wait S] [--ttl S] [--] COMMAND [ARGS...]";
  return {};
}

// The command's own standard input: a private opening of kolta's copy, so
// that the processes of several hosts each read it from the start.
run_options run_options_of(const command_args& a, std::optional<double> timeout) {
  run_options o;
  o.timeout_s = timeout;
  if (a.input_fd >= 0 && a.input_length > 0 && !a.no_input) {
    o.input_fd = ::open(("/proc/self/fd/" + std::to_string(a.input_fd)).c_str(), O_RDONLY | O_CLOEXEC);
    if (o.input_fd < 0) o.input_fd = a.input_fd;
    o.input_length = a.input_length;
  }
  return o;
}

// exec's time limit when none is given.
constexpr double kDefaultExecLimit = 180;

std::string check_pairs(const command_args& a, std::size_t from) {
  for (std::size_t i = from; i < a.words.size(); ++i)
    if (a.words[i].find('=') == std::string::npos || a.words[i][0] == '=')
      return "expected name=value, not '" + a.words[i] + "'";
  return {};
}

std::string check_setup(const command_args& a) { return check_pairs(a, 0); }
std::string check_raw(const command_args& a) { return check_pairs(a, 1); }

std::string check_reboot(const command_args& a) {
  if (a.words[0] != "warm" && a.words[0] != "cold")
    return "reboot takes warm or cold, not '" + a.words[0] + "'";
  return {};
}

std::string check_get(const command_args& a) {
  if (a.several_hosts && a.words.size() > 1 && a.words[1] == "-")
    return "get to standard output takes one host";
  return {};
}

int run_test(device& d, const command_args&) { return check_alive(d); }
int run_version(device& d, const command_args&) { return show_version(d); }
int run_sh(device& d, const command_args& a) {
  std::string command;
  for (const std::string& w : a.words) command += (command.empty() ? "" : " ") + w;
  return run_shell(d, command, run_options_of(a, a.timeout ? parse_limit(*a.timeout) : std::nullopt));
}
int run_exec(device& d, const command_args& a) {
  return run_program(d, a.words,
                     run_options_of(a, a.timeout ? parse_limit(*a.timeout) : kDefaultExecLimit));
}
int run_put(device& d, const command_args& a) { return put_file(d, a.words[0], a.words[1]); }
int run_get(device& d, const command_args& a) {
  std::string local = a.words.size() > 1 ? a.words[1] : "";
  if (a.several_hosts && local != "-") local = local_name_for(a.words[0], local) + "." + a.label;
  return get_file(d, a.words[0], local);
}
int run_rm(device& d, const command_args& a) { return remove_file(d, a.words[0]); }
int run_start(device& d, const command_args& a) {
  return start_process(d, a.words[0], std::span(a.words).subspan(1));
}
int run_stop(device& d, const command_args& a) { return stop_process(d, a.words[0]); }
int run_state(device& d, const command_args& a) { return show_state(d, a.words[0], a.remove); }
int run_output(device& d, const command_args& a) {
  return show_output(d, a.words[0], a.words.size() > 1 ? a.words[1] : "stdout", a.remove);
}
int run_wait(device& d, const command_args& a) {
  std::optional<double> timeout;
  if (a.timeout) timeout = parse_seconds(*a.timeout);
  return wait_process(d, a.words[0], timeout);
}
int run_setup(device& d, const command_args& a) { return change_settings(d, a.words); }
int run_reset(device& d, const command_args&) { return reset_settings(d); }
int run_reboot(device& d, const command_args& a) { return reboot_device(d, a.words[0], a.reboot_wait); }
int run_wait_online(device& d, const command_args& a) {
  return wait_online(d, a.timeout ? parse_seconds(*a.timeout).value_or(0) : kDefaultWaitSeconds);
}
int run_shutdown(device& d, const command_args&) { return shut_down(d); }
int run_exit(device& d, const command_args&) { return exit_daemon(d); }
int run_raw(device& d, const command_args& a) {
  return raw_request(d, a.words[0], std::span(a.words).subspan(1), a.body);
}

constexpr command_spec kCommands[] = {
    {"test", "test", "check that the daemon answers",
     "Exits 0 when the daemon answers, printing nothing.\n", 0, 0, 0, no_check, run_test},
    {"wait-online", "wait-online [--timeout S]", "wait until the daemon answers",
     "Tries until the daemon answers, each try on a connection of its own, with\n"
     "pauses growing to a second. Exits 3 when it has not answered after S\n"
     "seconds (default 300), saying what the last try saw.\n",
     0, 0, kTakesTimeout, check_timeout, run_wait_online},
    {"version", "version", "print the device's version information",
     "Prints the daemon's version text (DEVICE=, VERSION_SW=, OS_VERSION=, ...).\n", 0, 0, 0,
     no_check, run_version},
    {"sh", "sh [-n] 'COMMAND' [--timeout S]", "run a command line with the device's shell",
     "Runs COMMAND with the device's shell and prints its whole standard output,\n"
     "then its standard error on standard error. Exits with the command's own\n"
     "exit status (128+N when signal N ended it). Commands of any length work;\n"
     "several words are joined by blanks.\n"
     "--timeout S stops the command, with every process it started, after S\n"
     "seconds: what it wrote until then is printed and kolta exits 124. Without\n"
     "it the reply is awaited for -t seconds.\n"
     "Standard input, when it is not a terminal, is read to its end and becomes\n"
     "the command's (every host gets the same); -n gives it an empty one.\n",
     1, -1, kTakesTimeout | kProgramWords | kTakesInput, check_run, run_sh},
    {"exec", "exec [-n] PROGRAM [ARGS...] [--timeout S]", "run a program with a time limit",
     "Runs PROGRAM (looked up in the device's PATH) with ARGS passed exactly,\n"
     "prints its standard output and error, and exits with its exit status\n"
     "(128+N for signal N). After S seconds (default 180) it is stopped with\n"
     "every process it started: what it wrote until then is printed and kolta\n"
     "exits 124. Standard input as for sh; -n gives it an empty one.\n",
     1, -1, kTakesTimeout | kProgramWords | kTakesInput, check_run, run_exec},
    {"put", "put LOCAL REMOTE", "upload a file and check the copy",
     "Sends LOCAL to REMOTE with its MD5 signature, then checks the device's copy\n"
     "(with the device's md5sum where it has one, else by reading it back).\n"
     "Exits 4 when the copy differs. Shows a progress bar on a terminal for\n"
     "files over 1 MiB.\n",
     2, 2, 0, no_check, run_put},
    {"get", "get REMOTE [LOCAL]", "download a file ('-': standard output)",
     "Fetches REMOTE into LOCAL (default: its name in the current directory; a\n"
     "directory receives it under its name; '-' writes it to standard output).\n"
     "The file is written under a temporary name and renamed only when complete.\n"
     "With several hosts, each copy gets the host's name appended: LOCAL.HOST.\n",
     1, 2, 0, check_get, run_get},
    {"rm", "rm REMOTE", "remove a file on the device", "Removes REMOTE on the device.\n", 1, 1, 0,
     no_check, run_rm},
    {"start", "start PROGRAM [ARGS...]", "start a background process, print its pid",
     "Starts PROGRAM in the background through the daemon's process manager and\n"
     "prints its pid. PROGRAM is a path, or a name found in /bin, /sbin, /usr/bin\n"
     "or /usr/sbin. ARGS reach it exactly as given. Follow it with state, wait,\n"
     "output and stop.\n",
     1, 63, kProgramWords, no_check, run_start},
    {"stop", "stop PID", "stop a background process",
     "Stops the process (SIGTERM, SIGKILL six seconds later) and prints its state.\n", 1, 1, 0,
     check_pid, run_stop},
    {"state", "state PID [--remove]", "print a background process's state",
     "Prints STATE (RUNNING, PASSED, FAILED, DIED), EXITCODE, MSG, CMD and ARGS.\n"
     "--remove forgets an ended process and deletes its output.\n",
     1, 1, kTakesRemove, check_pid, run_state},
    {"output", "output PID [stdout|stderr] [--remove]", "print an ended process's output",
     "Prints the captured standard output (or error) of an ended process.\n"
     "--remove then forgets the process and deletes both of its outputs.\n",
     1, 2, kTakesRemove, check_output, run_output},
    {"wait", "wait PID [--timeout S]", "wait until a background process has ended",
     "Polls until the process has ended, then prints its state. Exits 3 when it\n"
     "is still running after S seconds.\n",
     1, 1, kTakesTimeout, check_pid, run_wait},
    {"setup", "setup [NAME=VALUE...]", "check or show the connection settings",
     "Sends the settings (LoadMethode, lod_server_ip, lod_server_port, exec_type)\n"
     "and prints them as they then are. Settings last one connection, and every\n"
     "kolta command opens its own: this checks values and shows the defaults.\n",
     0, 4, 0, check_setup, run_setup},
    {"reset", "reset", "put the connection settings back to their defaults",
     "Resets the connection's settings; the daemon then closes the connection.\n", 0, 0, 0,
     no_check, run_reset},
    {"reboot", "reboot warm|cold [--wait [S]]", "reboot the device",
     "warm: through init; cold: sync, then shutdown -r now.\n"
     "--wait returns only once the device has booted anew (its boot id, from\n"
     "/proc/sys/kernel/random/boot_id, has changed) and the daemon answers again.\n"
     "It exits 3 when that takes longer than S seconds (default 300), saying what\n"
     "was seen: a device that never went down, or came back with the same boot\n"
     "id, has not rebooted.\n",
     1, 1, kTakesRebootWait, check_reboot, run_reboot},
    {"shutdown", "shutdown", "halt the device",
     "Halts the device; prints the daemon's answer (SH_TIME=15).\n", 0, 0, 0, no_check,
     run_shutdown},
    {"exit", "exit", "end the daemon",
     "Ends koltad with its workers and process manager (until it is started again).\n", 0, 0,
     0, no_check, run_exit},
    {"lease", "lease [--wait S] [--ttl S] [--break] [-- COMMAND...]",
     "hold a free device while a command runs here",
     "Leases the first free device of the -H list and runs COMMAND on this host\n"
     "with KOLTA_HOST and KOLTA_PORT set to it, and KOLTA_LEASE to the lease's\n"
     "token (a client that would wait for that lease takes it as its own). The\n"
     "lease is renewed while COMMAND runs and released when it ends (on Ctrl-C\n"
     "and SIGTERM too, which is passed on to it); a holder that dies loses it\n"
     "after --ttl S seconds (default 60). Exits with COMMAND's status, or 3 when\n"
     "no device was free within --wait S seconds (default 600), listing the\n"
     "holders. --break removes the lease of each device named, whoever holds\n"
     "it, and prints whose it was. The lease lives on the device in\n"
     "/etc/kolta/lease (or /tmp/kolta-lease), shared with the Python client.\n",
     0, -1, kProgramWords | kTakesLease, check_lease, nullptr, run_lease},
    {"leases", "leases", "show who holds each device",
     "Prints one line per device of the -H list: free, or its holder with the\n"
     "lease's age and the time it has left. Exits 3 when one was not reachable.\n",
     0, 0, 0, no_check, nullptr, run_leases},
    {"raw", "raw COMMAND [NAME=VALUE...] [--body FILE]", "send any request, print the reply",
     "Sends the request COMMAND with the given arguments (and FILE as its data\n"
     "body, with content-length added) and prints the reply as it came: its\n"
     "header lines, an empty line, then the body.\n",
     1, 20, kTakesBody, check_raw, run_raw},
};

}  // namespace

std::span<const command_spec> command_table() { return kCommands; }

const command_spec* find_command(std::string_view name) {
  for (const command_spec& c : kCommands)
    if (name == c.name) return &c;
  return nullptr;
}

std::optional<double> parse_seconds(std::string_view text) {
  if (text.empty()) return std::nullopt;
  std::string copy(text);
  char* end = nullptr;
  double value = std::strtod(copy.c_str(), &end);
  if (*end != '\0' || !(value >= 0) || value > 1e7) return std::nullopt;
  return value;
}

std::optional<double> parse_limit(std::string_view text) {
  std::optional<double> value = parse_seconds(text);
  if (!value || *value <= 0) return std::nullopt;
  return value;
}

std::string parse_command_args(const command_spec& spec, std::span<char* const> words,
                               command_args* args) {
  bool options_end = false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    std::string_view w = words[i];
    bool program_started = (spec.options & kProgramWords) && !args->words.empty();
    if (!options_end && !program_started && w.size() > 1 && w[0] == '-' &&
        !(w[1] >= '0' && w[1] <= '9')) {
      if (w == "--") {
        options_end = true;
      } else if (w == "--help" || w == "-h") {
        args->help = true;
      } else if (w == "--wait" && (spec.options & kTakesRebootWait)) {
        // The number of seconds is optional: a word that is not one stays a word.
        std::optional<double> seconds;
        if (i + 1 < words.size()) seconds = parse_seconds(words[i + 1]);
        if (seconds) ++i;
        args->reboot_wait = seconds.value_or(kDefaultWaitSeconds);
      } else if (w == "-n" && (spec.options & kTakesInput)) {
        args->no_input = true;
      } else if (w == "--remove" && (spec.options & kTakesRemove)) {
        args->remove = true;
      } else if (w == "--break" && (spec.options & kTakesLease)) {
        args->break_lease = true;
      } else if ((w == "--wait" || w == "--ttl") && (spec.options & kTakesLease)) {
        if (i + 1 == words.size()) return std::string(w) + " needs a value";
        (w == "--wait" ? args->wait : args->ttl) = words[++i];
      } else if ((w == "--timeout" && (spec.options & kTakesTimeout)) ||
                 (w == "--body" && (spec.options & kTakesBody))) {
        if (i + 1 == words.size()) return std::string(w) + " needs a value";
        (w == "--timeout" ? args->timeout : args->body) = words[++i];
      } else {
        return "unknown option " + std::string(w);
      }
      continue;
    }
    args->words.emplace_back(w);
  }
  // exec takes its time limit after the program's words too.
  std::vector<std::string>& v = args->words;
  if ((spec.options & kTakesTimeout) && (spec.options & kProgramWords) && v.size() >= 3 &&
      v[v.size() - 2] == "--timeout") {
    args->timeout = v.back();
    v.resize(v.size() - 2);
  }
  if (args->help) return {};
  int n = static_cast<int>(v.size());
  if (n < spec.min_words || (spec.max_words >= 0 && n > spec.max_words))
    return std::string("usage: kolta [options] ") + spec.usage;
  return spec.check(*args);
}

void print_overview(std::FILE* out) {
  std::fputs(
      "usage: kolta [-H host[,host...]] [-p port] [-t seconds] [-n] COMMAND [ARGS...]\n"
      "       kolta --help | --version | help COMMAND\n"
      "\n"
      "Drives koltad, the process manager of a device, over TCP.\n"
      "\n"
      "Options:\n"
      "  -H host[,host...]  the device: a name or address, with :port where it differs\n"
      "                     ([v6addr]:port); several run the command on all of them\n"
      "                     in parallel, each output line prefixed with the host\n"
      "                     (default: $KOLTA_HOST)\n"
      "  -p port            the daemon's port (default: $KOLTA_PORT, else 10000)\n"
      "  -t seconds         time limit for connecting and for each reply (default 30,\n"
      "                     0: none); a transfer waits as long as its data moves\n"
      "  -n                 sh and exec: an empty standard input for the command\n"
      "                     (else kolta's own, read to its end, when not a terminal)\n"
      "  -h, --help         this text; kolta COMMAND --help tells about one command\n"
      "  -V, --version      the tool's version\n"
      "\n"
      "Commands:\n",
      out);
  for (const command_spec& c : command_table())
    std::fprintf(out, "  %-40s %s\n", c.usage, c.summary);
  std::fputs(
      "\n"
      "Exit status:\n"
      "  0  success\n"
      "  1  the daemon answered Fail (its reason is on standard error),\n"
      "     or a local file could not be read or written\n"
      "  2  usage error\n"
      "  3  cannot connect, time-out, or the connection broke\n"
      "  4  a transfer's check failed: the device's copy differs\n"
      "  sh and exec exit with the remote command's status (128+N for signal N),\n"
      "  124 when its --timeout stopped it.\n"
      "  With several hosts, the largest of their statuses.\n",
      out);
}

void print_command_help(const command_spec& spec, std::FILE* out) {
  std::fprintf(out, "usage: kolta [options] %s\n\n%s", spec.usage, spec.details);
}
