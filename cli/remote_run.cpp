#include "cli/remote_run.h"

#include <unistd.h>

#include <cstdio>

#include "cli/clock.h"
#include "cli/exit_status.h"
#include "cli/interrupt.h"
#include "cli/output.h"
#include "cli/shell_words.h"
#include "client/remote_command.h"

namespace {

// Stops what may still run and removes the command's files, after an
// interrupt or a failure; nothing of it is reported.
void tidy_up(device& dev, const vesk_c_command& cmd, bool may_run) {
  dev.tidy_up();
  dev.close();
  if (may_run) {
    bool stopped = false;
    vesk_c_command_stop(dev.where().host.c_str(), dev.where().port, dev.timeout_ms() > 0 ? dev.timeout_ms() : 30000,
                        cmd.files, &stopped);
  }
  if (vesk_c_conn* conn = dev.connection()) {
    if (vesk_c_command_remove(conn, cmd.files, cmd.with_input) != vesk_c_status::ok) dev.close();
  }
}

int run_remote(device& dev, const std::string& body, const std::string& what,
               const run_options& options) {
  vesk_c_command cmd;
  cmd.files = vesk_c_command_files_at("/tmp/kolta-cli-" + random_name());
  vesk_c_conn* conn = dev.connection();
  if (conn == nullptr) return dev.status();
  vesk_c_reply refused{};
  vesk_c_status s = vesk_c_command_start(conn, &cmd, body, options.input_fd, options.input_length,
                                         options.timeout_s.value_or(0), &refused);
  if (s != vesk_c_status::ok) {
    dev.io_failed("putFile", s);
    tidy_up(dev, cmd, true);
    return dev.status();
  }
  if (refused.kind == vesk_c_reply_kind::fail) {
    dev.report_fail("putFile", refused);
    tidy_up(dev, cmd, false);
    return dev.status();
  }

  // The reply waits for the command: until its time limit, else -t.
  std::int64_t wait_ms = options.timeout_s ? static_cast<std::int64_t>(*options.timeout_s * 1000)
                         : dev.timeout_ms() > 0 ? dev.timeout_ms()
                                                : -1;
  std::int64_t deadline = wait_ms >= 0 ? monotonic_ms() + wait_ms : -1;
  s = vesk_c_command_wait(conn, &cmd, deadline);
  bool overdue = s == vesk_c_status::timed_out;
  if (overdue && interrupt_signal() == 0) {
    bool stopped = false;
    vesk_c_status stop = vesk_c_command_stop(dev.where().host.c_str(), dev.where().port,
                                             dev.timeout_ms() > 0 ? dev.timeout_ms() : 30000,
                                             cmd.files, &stopped);
    if (stop != vesk_c_status::ok) {
      dev.io_failed("execute", stop);
      tidy_up(dev, cmd, true);
      return dev.status();
    }
    s = vesk_c_command_wait(conn, &cmd, dev.timeout_ms() > 0 ? monotonic_ms() + dev.timeout_ms() : -1);
  }
  if (s != vesk_c_status::ok) {
    dev.io_failed("execute", s);
    tidy_up(dev, cmd, true);
    return dev.status();
  }

  bool cut_short = overdue && !cmd.marker_found;
  vesk_c_command_end end;
  if (!cut_short && !vesk_c_command_decode(cmd.reply, cmd.marker_found, &end)) {
    dev.report_fail("execute", cmd.reply);
    tidy_up(dev, cmd, false);
    return dev.status();
  }
  std::fflush(stdout);
  s = vesk_c_command_finish(conn, dev.where().host.c_str(), dev.where().port, cmd, &end,
                            STDOUT_FILENO, STDERR_FILENO);
  if (s != vesk_c_status::ok) {
    dev.io_failed("getFile", s);
    tidy_up(dev, cmd, false);
    return dev.status();
  }
  if (cut_short) {
    if (options.timeout_s) {
      print_error(endpoint_text(dev.where()) + ": " + what + " was still running after " +
                  seconds_text(*options.timeout_s) + " and was stopped (raise it with --timeout)");
      return kExitTimedOut;
    }
    dev.report(endpoint_text(dev.where()) + ": no answer to \"execute\" within " +
                   seconds_text(dev.timeout_ms() / 1000.0) +
                   "; the command was stopped (raise the limit with -t, or give --timeout)",
               kExitConnection);
    return dev.status();
  }
  return end.status < 0 ? 128 - end.status : end.status;
}

}  // namespace

int run_shell(device& dev, const std::string& command, const run_options& options) {
  return run_remote(dev, command, "the command", options);
}

int run_program(device& dev, std::span<const std::string> argv, const run_options& options) {
  return run_remote(dev, vesk_c_program_text(argv), argv[0], options);
}
