#include "cli/remote_run.h"

#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "cli/clock.h"
#include "cli/exit_status.h"
#include "cli/remote_files.h"
#include "cli/shell_words.h"
#include "lib/system_texts.h"

namespace {

// The daemon's kill sequence after a time limit: SIGTERM, 2 s, SIGKILL.
constexpr int kKillGraceMs = 3000;

struct scratch_files {
  std::string base = "/tmp/kolta-cli-" + random_name();
  std::string script = base + ".sh";
  std::string out = base + ".out";
  std::string err = base + ".err";
};

// The script's first line sends everything after it to the private files.
// A shell command's script also drops those of its outputs that stayed
// empty as it ends (keeping the command's status), so that the fetch of an
// empty output is a quick refusal instead of a Data reply.
std::string script_text(const scratch_files& f, const std::string& body, bool drop_empty) {
  std::string text = "exec >" + f.out + " 2>" + f.err + "\n";
  if (drop_empty)
    text += "trap 'rc=$?; e=; [ -s " + f.out + " ] || e=" + f.out + "; [ -s " + f.err +
            " ] || e=\"$e " + f.err + "\"; [ -z \"$e\" ] || rm -f $e; exit $rc' 0\n";
  return text + body + "\n";
}

// Fetches one output into `fd`. A missing file is an empty output, and
// there is nothing to remove; whatever else happened, the file is removed.
bool fetch_output(device& dev, const std::string& remote, int fd) {
  std::string reason;
  if (dev.status() == 0 && !fetch_to_fd(dev, remote, fd, nullptr, &reason)) {
    if (reason == "File not found.") return false;
    if (!reason.empty())
      dev.report(endpoint_text(dev.where()) + ": the command's output could not be read (" +
                     reason + ")",
                 kExitFail);
  }
  return true;
}

// Prints both outputs and removes the files. Returns `status`, or the
// tool's status when an output could not be fetched after a success.
int finish(device& dev, const scratch_files& f, int status) {
  bool remove_out = fetch_output(dev, f.out, STDOUT_FILENO);
  bool remove_err = fetch_output(dev, f.err, STDERR_FILENO);
  remove_quietly(dev, f.script);
  if (remove_out) remove_quietly(dev, f.out);
  if (remove_err) remove_quietly(dev, f.err);
  if (status == 0) return dev.status();
  return status;
}

}  // namespace

int exit_status_of(int wait_status) {
  if (WIFEXITED(wait_status)) return WEXITSTATUS(wait_status);
  if (WIFSIGNALED(wait_status)) return 128 + WTERMSIG(wait_status);
  return kExitFail;
}

int signal_named(std::string_view text) { return signal_from_text(text); }

int run_shell(device& dev, const std::string& command) {
  scratch_files f;
  if (!upload_text(dev, f.script, script_text(f, command, true)))
    return finish(dev, f, dev.status());
  std::string line = "sh " + f.script;
  vesk_c_pair args[] = {{"cmd", line.c_str()}};
  vesk_c_reply reply;
  if (!dev.exchange("system", args, 1, &reply)) return finish(dev, f, dev.status());
  std::string body;
  int status = 0;
  if (reply.kind == vesk_c_reply_kind::data) {
    if (!dev.read_body(reply, &body)) return finish(dev, f, dev.status());
  } else if (reply.kind == vesk_c_reply_kind::fail) {
    if (std::strcmp(reply.reason, "Modul returned with error") == 0) {
      std::string rc;
      if (!dev.call("system_getDetails", {{"src", "RC"}}, &rc)) return finish(dev, f, dev.status());
      status = exit_status_of(std::atoi(rc.c_str()));
    } else {
      dev.report_fail("system", reply);
      status = kExitFail;
    }
  }
  return finish(dev, f, status);
}

int run_program(device& dev, std::span<const std::string> argv, std::optional<int> timeout_s) {
  scratch_files f;
  if (!upload_text(dev, f.script, script_text(f, "exec " + shell_command(argv), false)))
    return finish(dev, f, dev.status());
  std::string timeout = timeout_s ? std::to_string(*timeout_s) : std::string();
  vesk_c_pair args[] = {
      {"cmd", "/bin/sh"}, {"args", f.script.c_str()}, {"timeout", timeout.c_str()}};
  int limit_s = timeout_s.value_or(180);
  int reply_wait = limit_s < 0 ? -1 : limit_s * 1000 + kKillGraceMs + dev.timeout_ms();
  std::int64_t started = monotonic_ms();
  vesk_c_reply reply;
  if (!dev.exchange("execute", args, timeout_s ? 3 : 2, &reply, reply_wait))
    return finish(dev, f, dev.status());
  std::string body;
  int status = 0;
  if (reply.kind == vesk_c_reply_kind::data) {
    if (!dev.read_body(reply, &body)) return finish(dev, f, dev.status());
  } else if (reply.kind == vesk_c_reply_kind::fail) {
    const char* reason = reply.reason;
    const char* open = std::strrchr(reason, '(');
    if (std::strncmp(reason, "RC=", 3) == 0) {
      status = std::atoi(reason + 3);
    } else if (std::strstr(reason, ": Execution failed (") != nullptr && open != nullptr) {
      std::string_view name(open + 1);
      if (!name.empty() && name.back() == ')') name.remove_suffix(1);
      int sig = signal_named(name);
      status = sig != 0 ? 128 + sig : kExitFail;
      bool limit_hit = limit_s >= 0 && (sig == SIGTERM || sig == SIGKILL) &&
                       monotonic_ms() - started >= static_cast<std::int64_t>(limit_s) * 1000;
      if (limit_hit)
        print_error(endpoint_text(dev.where()) + ": " + argv[0] + " was still running after " +
                    std::to_string(limit_s) + " s and was stopped (raise it with --timeout)");
    } else {
      dev.report_fail("execute", reply);
      status = kExitFail;
    }
  }
  return finish(dev, f, status);
}
