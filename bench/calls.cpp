// Single calls, timed one by one; prints "name=value" lines (medians in
// milliseconds) for tools/run-bench.sh. Every call is checked before it is
// counted: a reply of the wrong kind, an output or exit status other than
// the expected one ends the run with an error.
//
//   calls floor PORT N
//     the protocol's floor for a call that returns output, on a kept
//     connection to the daemon at 127.0.0.1:PORT: one "test" round trip plus
//     one Data reply with a 3-byte body ("getFile" of a 3-byte file that this
//     creates with "putFile" and removes afterwards)
//   calls time NAME N STATUS STDOUT STDERR -- COMMAND...
//     COMMAND run N times (standard input /dev/null), starting the process
//     included; its standard output must be STDOUT and its standard error
//     STDERR ("\n" for a newline), its exit status STATUS
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "client/session.h"
#include "lib/unique_fd.h"

namespace {

using clock_type = std::chrono::steady_clock;

[[noreturn]] void fail(const std::string& why) {
  std::fprintf(stderr, "calls: %s\n", why.c_str());
  std::exit(1);
}

double ms_since(clock_type::time_point t) {
  return std::chrono::duration<double, std::milli>(clock_type::now() - t).count();
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

bool keep(void* ctx, const char* data, std::size_t n) {
  static_cast<std::string*>(ctx)->append(data, n);
  return true;
}

vesk_c_conn connect_or_fail(int port) {
  vesk_c_conn conn;
  if (vesk_c_connect(&conn, "127.0.0.1", port, 10000) != vesk_c_status::ok) fail("cannot connect");
  return conn;
}

// Sends a request, reads its reply and body; fails unless the reply is `kind`.
std::string ask(vesk_c_conn* conn, const char* command, std::span<const vesk_c_pair> args,
                vesk_c_reply_kind kind, int body_fd = -1, std::size_t body_length = 0) {
  vesk_c_reply reply;
  std::string body;
  if (vesk_c_send_request(conn, command, args) != vesk_c_status::ok ||
      (body_fd >= 0 && vesk_c_send_body(conn, body_fd, body_length) != vesk_c_status::ok) ||
      vesk_c_read_reply(conn, &reply) != vesk_c_status::ok ||
      vesk_c_read_body(conn, reply, keep, &body) != vesk_c_status::ok || reply.kind != kind)
    fail(std::string("no fitting reply to ") + command);
  return body;
}

int floor_figures(int port, int n) {
  const char* file = "/tmp/kolta-bench-floor";
  {
    vesk_c_conn conn = connect_or_fail(port);
    unique_fd body(::memfd_create("floor", MFD_CLOEXEC));
    if (!body.ok() || ::write(body.get(), "hi\n", 3) != 3 || ::lseek(body.get(), 0, SEEK_SET) != 0)
      fail("cannot make the floor's file");
    const vesk_c_pair put[] = {{"file", file},
                               {"md5_sig", "764EFA883DDA1E11DB47671C4A3BBD9E"},
                               {"content-length", "3"}};
    ask(&conn, "putFile", put, vesk_c_reply_kind::success, body.get(), 3);
    vesk_c_disconnect(&conn);
  }
  const vesk_c_pair get[] = {{"file", file}};
  std::vector<double> data_ms, test_ms, floor_ms;
  for (int i = 0; i < n + 1; ++i) {
    vesk_c_conn conn = connect_or_fail(port);
    auto t = clock_type::now();
    if (ask(&conn, "getFile", get, vesk_c_reply_kind::data) != "hi\n") fail("getFile: other bytes");
    double data = ms_since(t);
    t = clock_type::now();
    ask(&conn, "test", {}, vesk_c_reply_kind::success);  // on the kept connection; it then closes
    double test = ms_since(t);
    vesk_c_disconnect(&conn);
    if (i == 0) continue;  // warming up
    data_ms.push_back(data);
    test_ms.push_back(test);
    floor_ms.push_back(data + test);
  }
  vesk_c_conn conn = connect_or_fail(port);
  ask(&conn, "remFile", get, vesk_c_reply_kind::success);
  vesk_c_disconnect(&conn);
  std::printf("floor_data_ms=%.3f\nfloor_test_ms=%.3f\nfloor_ms=%.3f\n", median(data_ms),
              median(test_ms), median(floor_ms));
  return 0;
}

std::string unescape(const char* text) {
  std::string out;
  for (const char* p = text; *p != '\0'; ++p) {
    if (p[0] == '\\' && p[1] == 'n') {
      out.push_back('\n');
      ++p;
    } else {
      out.push_back(*p);
    }
  }
  return out;
}

struct outcome {
  std::string out, err;
  int status;
};

std::string read_all(int fd) {
  std::string text;
  char block[4096];
  for (ssize_t n; (n = ::read(fd, block, sizeof block)) != 0;) {
    if (n < 0) {
      if (errno == EINTR) continue;
      break;
    }
    text.append(block, static_cast<std::size_t>(n));
  }
  return text;
}

// Runs the command once. Standard output comes through a pipe (read as it
// arrives), standard error through a file of its own.
outcome run_once(char* const argv[]) {
  int out[2];
  unique_fd err(::memfd_create("calls-stderr", MFD_CLOEXEC));
  if (::pipe2(out, O_CLOEXEC) != 0 || !err.ok()) fail("pipe");
  pid_t pid = ::fork();
  if (pid == 0) {
    int null = ::open("/dev/null", O_RDONLY);
    ::dup2(null, STDIN_FILENO);
    ::dup2(out[1], STDOUT_FILENO);
    ::dup2(err.get(), STDERR_FILENO);
    ::execvp(argv[0], argv);
    ::_exit(127);
  }
  ::close(out[1]);
  outcome o;
  o.out = read_all(out[0]);
  ::close(out[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  o.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  ::lseek(err.get(), 0, SEEK_SET);
  o.err = read_all(err.get());
  return o;
}

int time_figures(const char* name, int n, int status, const std::string& expected_out,
                 const std::string& expected_err, char* const argv[]) {
  std::vector<double> ms;
  for (int i = 0; i < n + 1; ++i) {
    auto t = clock_type::now();
    outcome o = run_once(argv);
    double took = ms_since(t);
    if (o.status != status || o.out != expected_out || o.err != expected_err)
      fail(std::string(name) + ": status " + std::to_string(o.status) + ", output '" + o.out +
           "', error output '" + o.err + "'");
    if (i > 0) ms.push_back(took);  // the first warms up
  }
  std::printf("%s=%.3f\n", name, median(ms));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "floor") == 0)
    return floor_figures(std::atoi(argv[2]), std::atoi(argv[3]));
  if (argc >= 9 && std::strcmp(argv[1], "time") == 0 && std::strcmp(argv[7], "--") == 0)
    return time_figures(argv[2], std::atoi(argv[3]), std::atoi(argv[4]), unescape(argv[5]),
                        unescape(argv[6]), argv + 8);
  fail("usage: calls floor PORT N | calls time NAME N STATUS STDOUT STDERR -- COMMAND...");
}
