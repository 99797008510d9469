// Throughput of "putFile" and "getFile" for a 256 MiB file and the round trip
// of "system" with "cmd: true", each beside the same transfer through a raw
// TCP pipe (socat) on this machine. The daemon runs in the test sandbox.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "lib/md5.h"
#include "lib/unique_fd.h"
#include "tests/support/sandbox.h"

namespace {

using clock_type = std::chrono::steady_clock;
constexpr std::size_t kFileSize = 256u << 20;
constexpr int kRoundTrips = 300;

double seconds_since(clock_type::time_point t) {
  return std::chrono::duration<double>(clock_type::now() - t).count();
}

unique_fd connect_to(int port) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    unique_fd fd(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<unsigned short>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
      int one = 1;
      setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      return fd;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  std::fprintf(stderr, "cannot connect to port %d\n", port);
  std::exit(1);
}

void send_all(int fd, const char* p, std::size_t n) {
  while (n > 0) {
    ssize_t w = send(fd, p, n, MSG_NOSIGNAL);
    if (w <= 0) std::exit(1);
    p += w;
    n -= static_cast<std::size_t>(w);
  }
}

// Reads exactly `n` bytes (or to the peer's close); returns how many came.
std::size_t recv_exact(int fd, char* p, std::size_t n) {
  std::size_t got = 0;
  while (got < n) {
    ssize_t r = recv(fd, p + got, n - got, 0);
    if (r <= 0) break;
    got += static_cast<std::size_t>(r);
  }
  return got;
}

// Reads a reply header; returns it, with the Content-length in `*length`.
std::string read_header(int fd, std::size_t* length) {
  std::string h;
  char c;
  while (h.size() < 4 || h.compare(h.size() - 4, 4, "\r\n\r\n") != 0) {
    if (recv(fd, &c, 1, 0) != 1) break;
    h += c;
  }
  auto at = h.find("Content-length: ");
  *length = at == std::string::npos ? 0 : std::strtoul(h.c_str() + at + 16, nullptr, 10);
  return h;
}

// A socat process, killed when this goes out of scope.
struct socat {
  pid_t pid = -1;
  explicit socat(std::vector<std::string> args) {
    pid = fork();
    if (pid == 0) {
      std::vector<char*> argv{const_cast<char*>("socat")};
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      execvp("socat", argv.data());
      _exit(127);
    }
  }
  ~socat() {
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
  }
};

void report(const char* what, double daemon_s, double raw_s, const char* unit, double amount) {
  std::printf("%-22s koltad %9.2f %s   raw TCP %9.2f %s   koltad/raw %.2f\n", what,
              amount / daemon_s, unit, amount / raw_s, unit, raw_s / daemon_s);
}

}  // namespace

int main() {
  if (!kolta_test::sandbox_unavailable_reason().empty()) {
    std::fprintf(stderr, "needs root and namespaces: %s\n",
                 kolta_test::sandbox_unavailable_reason().c_str());
    return 1;
  }
  std::string data(kFileSize, '\0');
  std::uint64_t x = 0x9E3779B97F4A7C15ull;
  for (std::size_t i = 0; i < kFileSize; i += 8) {
    x ^= x << 13, x ^= x >> 7, x ^= x << 17;
    std::memcpy(&data[i], &x, 8);
  }
  md5_context ctx;
  std::uint8_t sig[16];
  MD5Init(&ctx);
  MD5Update(&ctx, data.data(), data.size());
  MD5Final(sig, &ctx);
  char sig_text[33];
  for (int i = 0; i < 16; ++i) std::snprintf(sig_text + 2 * i, 3, "%02X", sig[i]);

  kolta_test::Sandbox daemon;
  if (!daemon.start()) {
    std::fprintf(stderr, "daemon did not start: %s\n", daemon.error().c_str());
    return 1;
  }
  const double mib = static_cast<double>(kFileSize) / (1 << 20);
  std::size_t length = 0;

  // putFile
  auto c = connect_to(daemon.port());
  std::string put = "Request: putFile\r\nfile: /tmp/bench.bin\r\nmd5_sig: " + std::string(sig_text) +
                    "\r\ncontent-length: " + std::to_string(kFileSize) + "\r\n\r\n";
  auto t = clock_type::now();
  send_all(c.get(), put.data(), put.size());
  send_all(c.get(), data.data(), data.size());
  std::string h = read_header(c.get(), &length);
  double put_s = seconds_since(t);
  if (h != "Reply: Success\r\n\r\n") std::fprintf(stderr, "putFile answered: %s\n", h.c_str());

  // getFile
  std::string back(kFileSize, '\0');
  std::string get = "Request: getFile\r\nfile: /tmp/bench.bin\r\n\r\n";
  t = clock_type::now();
  send_all(c.get(), get.data(), get.size());
  read_header(c.get(), &length);
  std::size_t got = recv_exact(c.get(), back.data(), length);
  double get_s = seconds_since(t);
  if (got != kFileSize || back != data) std::fprintf(stderr, "getFile: the file came back different\n");

  // system true
  std::string sys = "Request: system\r\ncmd: true\r\n\r\n";
  t = clock_type::now();
  for (int i = 0; i < kRoundTrips; ++i) {
    send_all(c.get(), sys.data(), sys.size());
    read_header(c.get(), &length);
    std::string body(length, '\0');
    recv_exact(c.get(), body.data(), length);
  }
  double sys_s = seconds_since(t) / kRoundTrips;
  c.reset();

  // The same through socat: upload into a sink, download from a file, echo.
  const int port = kolta_test::free_port();
  std::string raw_file = daemon.host_dir() + "/raw.bin";
  {
    FILE* f = std::fopen(raw_file.c_str(), "wb");
    std::fwrite(data.data(), 1, data.size(), f);
    std::fclose(f);
  }
  double raw_put_s, raw_get_s, raw_rt_s;
  {
    socat sink({"-u", "TCP-LISTEN:" + std::to_string(port) + ",reuseaddr", "OPEN:/dev/null"});
    auto r = connect_to(port);
    t = clock_type::now();
    send_all(r.get(), data.data(), data.size());
    shutdown(r.get(), SHUT_WR);
    char byte;
    recv(r.get(), &byte, 1, 0);
    raw_put_s = seconds_since(t);
  }
  {
    socat source({"-u", "FILE:" + raw_file, "TCP-LISTEN:" + std::to_string(port) + ",reuseaddr"});
    auto r = connect_to(port);
    t = clock_type::now();
    recv_exact(r.get(), back.data(), kFileSize);
    raw_get_s = seconds_since(t);
  }
  {
    socat echo({"TCP-LISTEN:" + std::to_string(port) + ",reuseaddr", "PIPE"});
    auto r = connect_to(port);
    char buf[64];
    t = clock_type::now();
    for (int i = 0; i < kRoundTrips; ++i) {
      send_all(r.get(), sys.data(), sys.size());
      recv_exact(r.get(), buf, sys.size());
    }
    raw_rt_s = seconds_since(t) / kRoundTrips;
  }
  unlink(raw_file.c_str());

  std::printf("256 MiB file, %d round trips\n", kRoundTrips);
  report("putFile", put_s, raw_put_s, "MiB/s", mib);
  report("getFile", get_s, raw_get_s, "MiB/s", mib);
  std::printf("%-22s koltad %9.3f ms      raw TCP %9.3f ms      koltad/raw %.1f\n",
              "system cmd=true", sys_s * 1e3, raw_rt_s * 1e3, sys_s / raw_rt_s);
  return 0;
}
