// koltad beside the machine's limit, in one run: a bare loopback TCP pair,
// "putFile" and "getFile" of a large file, "system" round trips, fresh
// "test" connections with 1 and 8 clients, and the daemon's resident memory.
// The daemon runs in the test sandbox. Every figure is checked before it is
// printed (sizes and MD5 signatures, reply kinds); a failed check ends the
// run with an error and prints no figure for it.
//
// Usage: koltad_bench FILE MD5   (FILE is the transfer source, MD5 its signature)
//        koltad_bench --footprint (only the idle memory and the "test" rates)
// Prints "name=value" lines for tools/run-bench.sh. The daemon is the one
// built beside it, or $KOLTA_TEST_DAEMON.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "client/session.h"
#include "lib/md5.h"
#include "lib/unique_fd.h"
#include "tests/support/sandbox.h"

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point t) {
  return std::chrono::duration<double>(clock_type::now() - t).count();
}

[[noreturn]] void fail(const std::string& why) {
  std::fprintf(stderr, "koltad_bench: %s\n", why.c_str());
  std::exit(1);
}

std::string hex(const std::uint8_t (&sig)[16]) {
  char text[33];
  for (int i = 0; i < 16; ++i) std::snprintf(text + 2 * i, 3, "%02X", sig[i]);
  return text;
}

std::string md5_of(const std::string& path) {
  std::uint8_t sig[16];
  return get_file_md5(path.c_str(), sig) == 0 ? hex(sig) : "";
}

std::string md5_text(const std::vector<char>& bytes) {
  md5_context ctx;
  MD5Init(&ctx);
  MD5Update(&ctx, bytes.data(), bytes.size());
  std::uint8_t sig[16];
  MD5Final(sig, &ctx);
  return hex(sig);
}

std::string upper(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

vesk_c_conn connect_or_fail(int port, int timeout_ms = 10000) {
  vesk_c_conn conn;
  vesk_c_status s = vesk_c_connect(&conn, "127.0.0.1", port, timeout_ms);
  if (s != vesk_c_status::ok) fail(std::string("connect: ") + vesk_c_status_text(s));
  return conn;
}

bool discard(void*, const char*, std::size_t) { return true; }

// Sends a request and reads its reply (and a Data body); the reply's kind.
vesk_c_reply_kind ask(vesk_c_conn* conn, const char* command, std::span<const vesk_c_pair> args) {
  vesk_c_reply reply;
  if (vesk_c_send_request(conn, command, args) != vesk_c_status::ok ||
      vesk_c_read_reply(conn, &reply) != vesk_c_status::ok ||
      vesk_c_read_body(conn, reply, discard, nullptr) != vesk_c_status::ok)
    fail(std::string("no reply to ") + command);
  return reply.kind;
}

// A bare loopback TCP pair: a child writes `bytes`, this process reads them.
double raw_tcp_mb_s(std::uint64_t bytes) {
  unique_fd listener(socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (bind(listener.get(), reinterpret_cast<sockaddr*>(&a), len) != 0 || listen(listener.get(), 1) != 0 ||
      getsockname(listener.get(), reinterpret_cast<sockaddr*>(&a), &len) != 0)
    fail("raw TCP: cannot listen");
  constexpr std::size_t kBlock = 1 << 20;
  std::vector<char> buffer(kBlock, 'x');
  pid_t writer = fork();
  if (writer == 0) {
    unique_fd out(socket(AF_INET, SOCK_STREAM, 0));
    if (connect(out.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) _exit(1);
    for (std::uint64_t left = bytes; left > 0;) {
      ssize_t n = send(out.get(), buffer.data(), std::min<std::uint64_t>(left, kBlock), 0);
      if (n <= 0) _exit(1);
      left -= static_cast<std::uint64_t>(n);
    }
    _exit(0);
  }
  unique_fd in(accept(listener.get(), nullptr, nullptr));
  auto t = clock_type::now();
  std::uint64_t got = 0;
  for (ssize_t n; (n = recv(in.get(), buffer.data(), kBlock, 0)) > 0;) got += static_cast<std::uint64_t>(n);
  double s = seconds_since(t);
  int status = 0;
  waitpid(writer, &status, 0);
  if (got != bytes || !WIFEXITED(status) || WEXITSTATUS(status) != 0) fail("raw TCP: short transfer");
  return static_cast<double>(bytes) / s / 1e6;
}

// Fresh connections answering "test" for `seconds`; how many.
long test_connections(int port, double seconds) {
  long count = 0;
  auto t = clock_type::now();
  while (seconds_since(t) < seconds) {
    vesk_c_conn conn = connect_or_fail(port);
    if (ask(&conn, "test", {}) != vesk_c_reply_kind::success) fail("test: no Success");
    vesk_c_disconnect(&conn);
    ++count;
  }
  return count;
}

double test_rate(int port, int clients) {
  constexpr double kSeconds = 3.0;
  if (clients == 1) return test_connections(port, kSeconds) / kSeconds;
  int fds[2];
  if (pipe(fds) != 0) fail("pipe");
  std::vector<pid_t> children;
  for (int i = 0; i < clients; ++i) {
    pid_t pid = fork();
    if (pid == 0) {
      long n = test_connections(port, kSeconds);
      _exit(write(fds[1], &n, sizeof n) == sizeof n ? 0 : 1);
    }
    children.push_back(pid);
  }
  close(fds[1]);
  long total = 0;
  for (long n; read(fds[0], &n, sizeof n) == sizeof n;) total += n;
  close(fds[0]);
  for (pid_t pid : children) {
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) fail("a test client failed");
  }
  return total / kSeconds;
}

// A field of /proc/<pid>/status or smaps_rollup, in kB; -1 when missing.
long proc_kb(pid_t pid, const char* file, const char* field) {
  std::string text = kolta_test::read_file("/proc/" + std::to_string(pid) + "/" + file);
  auto at = text.find(std::string(field) + ":");
  return at == std::string::npos ? -1 : std::strtol(text.c_str() + at + std::strlen(field) + 1, nullptr, 10);
}

}  // namespace

int main(int argc, char** argv) {
  const bool footprint = argc == 2 && std::strcmp(argv[1], "--footprint") == 0;
  if (argc != 3 && !footprint) fail("usage: koltad_bench FILE MD5 | koltad_bench --footprint");
  if (!kolta_test::sandbox_unavailable_reason().empty())
    fail("needs root and namespaces: " + kolta_test::sandbox_unavailable_reason());
  const std::string source = footprint ? "" : argv[1], expected = footprint ? "" : upper(argv[2]);
  struct stat st{};
  if (!footprint && stat(source.c_str(), &st) != 0) fail("cannot read " + source);
  const auto size = static_cast<std::uint64_t>(st.st_size);

  if (!footprint) std::printf("raw_tcp_mb_s=%.0f\n", raw_tcp_mb_s(size));

  kolta_test::Sandbox daemon;
  if (!daemon.start()) fail("daemon did not start: " + daemon.error());
  const int port = daemon.port();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const std::vector<pid_t> task = daemon.children();
  if (task.size() != 1) fail("expected one process-manager task");
  std::printf("rss_daemon_kb=%ld\nrss_task_kb=%ld\n", proc_kb(daemon.pid(), "status", "VmRSS"),
              proc_kb(task[0], "status", "VmRSS"));
  if (footprint) {
    std::printf("test_1_per_s=%.0f\n", test_rate(port, 1));
    std::printf("test_8_per_s=%.0f\n", test_rate(port, 8));
    daemon.stop();
    return 0;
  }
  {  // The floor: what an idle "sleep" holds, a small program on the same C library.
    pid_t idle = fork();
    if (idle == 0) {
      execl("/bin/sleep", "sleep", "5", static_cast<char*>(nullptr));
      _exit(127);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    std::printf("rss_sleep_kb=%ld\n", proc_kb(idle, "status", "VmRSS"));
    kill(idle, SIGKILL);
    waitpid(idle, nullptr, 0);
  }

  // putFile, then getFile on the same connection.
  {
    unique_fd src(open(source.c_str(), O_RDONLY));
    vesk_c_conn conn = connect_or_fail(port);
    conn.timeout_ms = 300000;
    const std::string length = std::to_string(size);
    const vesk_c_pair put[] = {{"file", "/tmp/bench.bin"}, {"md5_sig", expected.c_str()},
                               {"content-length", length.c_str()}};
    vesk_c_reply reply;
    auto t = clock_type::now();
    if (vesk_c_send_request(&conn, "putFile", put) != vesk_c_status::ok ||
        vesk_c_send_body(&conn, src.get(), size) != vesk_c_status::ok ||
        vesk_c_read_reply(&conn, &reply) != vesk_c_status::ok || reply.kind != vesk_c_reply_kind::success)
      fail("putFile failed");
    double put_s = seconds_since(t);
    if (md5_of(daemon.path("/tmp/bench.bin")) != expected) fail("putFile: the stored file differs");
    std::printf("put_mb_s=%.0f\n", static_cast<double>(size) / put_s / 1e6);

    // The download goes to memory touched beforehand, as the raw TCP pair's
    // does; it is checked after the clock has stopped.
    std::vector<char> back(size);
    std::memset(back.data(), 0, back.size());
    struct into_memory {
      char* at;
      char* end;
    } dst{back.data(), back.data() + back.size()};
    auto copy_in = [](void* ctx, const char* data, std::size_t n) {
      auto* d = static_cast<into_memory*>(ctx);
      if (static_cast<std::size_t>(d->end - d->at) < n) return false;
      std::memcpy(d->at, data, n);
      d->at += n;
      return true;
    };
    const vesk_c_pair get[] = {{"file", "/tmp/bench.bin"}};
    t = clock_type::now();
    if (vesk_c_send_request(&conn, "getFile", get) != vesk_c_status::ok ||
        vesk_c_read_reply(&conn, &reply) != vesk_c_status::ok || reply.kind != vesk_c_reply_kind::data ||
        reply.content_length != size || vesk_c_read_body(&conn, reply, copy_in, &dst) != vesk_c_status::ok)
      fail("getFile failed");
    double get_s = seconds_since(t);
    unlink(daemon.path("/tmp/bench.bin").c_str());
    if (dst.at != dst.end || md5_text(back) != expected) fail("getFile: the file came back different");
    std::printf("get_mb_s=%.0f\n", static_cast<double>(size) / get_s / 1e6);
    vesk_c_disconnect(&conn);
  }

  // "system" "true": each on a fresh connection, then on one kept connection in "rod" mode.
  {
    const vesk_c_pair cmd[] = {{"cmd", "true"}};
    constexpr int kFresh = 60, kKept = 300;
    auto t = clock_type::now();
    for (int i = 0; i < kFresh; ++i) {
      vesk_c_conn conn = connect_or_fail(port);
      if (ask(&conn, "system", cmd) != vesk_c_reply_kind::data) fail("system: no Data reply");
      vesk_c_disconnect(&conn);
    }
    std::printf("system_fresh_ms=%.3f\n", seconds_since(t) * 1e3 / kFresh);

    vesk_c_conn conn = connect_or_fail(port);
    const vesk_c_pair rod[] = {{"exec_type", "rod"}};
    if (ask(&conn, "server_setup", rod) != vesk_c_reply_kind::data) fail("server_setup failed");
    t = clock_type::now();
    for (int i = 0; i < kKept; ++i) {
      if (ask(&conn, "system", cmd) != vesk_c_reply_kind::success) fail("system (rod): no Success");
    }
    std::printf("system_rod_ms=%.3f\n", seconds_since(t) * 1e3 / kKept);
    vesk_c_disconnect(&conn);
  }

  std::printf("test_1_per_s=%.0f\n", test_rate(port, 1));
  std::printf("test_8_per_s=%.0f\n", test_rate(port, 8));

  // Resident memory with 32 connections open (and idle).
  {
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // the test workers are gone
    std::vector<unique_fd> open_conns;
    for (int i = 0; i < 32; ++i) open_conns.push_back(unique_fd(connect_or_fail(port).fd));
    std::vector<pid_t> workers;
    for (int i = 0; i < 100 && (workers = daemon.workers()).size() < 32; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    if (workers.size() < 32) fail("32 workers did not appear");
    long rss = 0, pss = proc_kb(daemon.pid(), "smaps_rollup", "Pss") + proc_kb(task[0], "smaps_rollup", "Pss");
    for (pid_t w : workers) {
      rss += proc_kb(w, "status", "VmRSS");
      pss += proc_kb(w, "smaps_rollup", "Pss");
    }
    std::printf("rss_worker_kb=%ld\npss_32_total_kb=%ld\n", rss / static_cast<long>(workers.size()), pss);
  }
  daemon.stop();
  return 0;
}
