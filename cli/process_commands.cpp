#include "cli/process_commands.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "cli/clock.h"
#include "cli/exit_status.h"
#include "cli/output.h"
#include "cli/remote_files.h"
#include "cli/shell_words.h"

namespace {

// Runs a program found in its PATH, or one without argument words.
constexpr const char* kArgumentlessStarter = "/usr/bin/env";

// Polling for the end of a process: the first pause, growing to the longest.
constexpr double kFirstPause = 0.01;
constexpr double kLongestPause = 0.25;

void pause_for(double seconds) {
  auto ns = static_cast<long long>(seconds * 1e9);
  timespec ts{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
  // A signal ends the pause early: the next request sees the interrupt.
  nanosleep(&ts, nullptr);
}

}  // namespace

std::string field_of(const std::string& body, const std::string& name) {
  std::string key = name + "=";
  std::size_t at = 0;
  while (at < body.size()) {
    std::size_t end = body.find('\n', at);
    if (end == std::string::npos) end = body.size();
    if (body.compare(at, key.size(), key) == 0)
      return body.substr(at + key.size(), end - at - key.size());
    at = end + 1;
  }
  return {};
}

int start_process(device& dev, const std::string& program, std::span<const std::string> args) {
  // The process manager does not search a PATH: env finds a bare name, and
  // starts a program that has no argument words, which the daemon cannot.
  std::string cmd = program;
  std::vector<std::string> words(args.begin(), args.end());
  if (args.empty() || program.find('/') == std::string::npos) {
    cmd = kArgumentlessStarter;
    words.insert(words.begin(), program);
  }
  std::string why;
  std::optional<std::string> text = splitter_args(words, &why);
  if (!text) {
    // Words the daemon's splitter would change pass exactly through a small
    // script that removes itself and becomes the program (same pid).
    words.assign({program});
    words.insert(words.end(), args.begin(), args.end());
    std::string script = "/tmp/kolta-cli-" + random_name() + ".sh";
    if (!upload_text(dev, script, "rm -f \"$0\"\nexec " + shell_command(words) + "\n"))
      return dev.status();
    cmd = "/bin/sh";
    text = script;
  }
  std::string body;
  if (!dev.call("process_start", {{"cmd", cmd.c_str()}, {"args", text->c_str()}}, &body))
    return dev.status();
  std::printf("%s\n", field_of(body, "PID").c_str());
  std::fflush(stdout);
  return kExitOk;
}

int stop_process(device& dev, const std::string& pid) {
  std::string body;
  // The daemon waits up to six seconds for the process to end after SIGTERM.
  int wait_ms = dev.timeout_ms() > 0 ? dev.timeout_ms() + 7000 : -1;
  if (dev.call("process_stop", {{"pid", pid.c_str()}}, &body, wait_ms)) print_text(body);
  return dev.status();
}

int show_state(device& dev, const std::string& pid, bool remove) {
  std::string body;
  bool ok = remove ? dev.call("process_getState", {{"pid", pid.c_str()}, {"rp", "1"}}, &body)
                   : dev.call("process_getState", {{"pid", pid.c_str()}}, &body);
  if (ok) print_text(body);
  return dev.status();
}

int show_output(device& dev, const std::string& pid, const std::string& stream, bool remove) {
  std::string source = stream == "stderr" ? "STDERR" : "STDOUT";
  vesk_c_reply reply;
  if (!dev.request("process_getDetails",
                   {{"pid", pid.c_str()}, {"rp", remove ? "1" : "0"}, {"src", source.c_str()}},
                   &reply))
    return dev.status();
  std::fflush(stdout);
  dev.read_body_to_fd(reply, STDOUT_FILENO);
  return dev.status();
}

int wait_process(device& dev, const std::string& pid, std::optional<double> timeout_s) {
  double deadline = timeout_s ? monotonic_ms() / 1000.0 + *timeout_s : 0;
  double pause = kFirstPause;
  for (;;) {
    std::string body;
    if (!dev.call("process_getState", {{"pid", pid.c_str()}}, &body)) return dev.status();
    if (field_of(body, "STATE") != "RUNNING") {
      print_text(body);
      return kExitOk;
    }
    if (timeout_s) {
      double left = deadline - monotonic_ms() / 1000.0;
      if (left <= 0) {
        dev.report(endpoint_text(dev.where()) + ": process " + pid + " is still running after " + seconds_text(*timeout_s),
                   kExitConnection);
        return dev.status();
      }
      pause = std::min(pause, left);
    }
    pause_for(pause);
    pause = std::min(pause * 2, kLongestPause);
  }
}
