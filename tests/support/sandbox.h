// Runs one koltad in a private sandbox for integration tests: own mount and
// IPC namespaces, /etc and /usr/sbin overlaid (kolta.conf and the power
// command stubs), a private /tmp, and its own session and process group.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace kolta_test {

// Empty when namespaces and mounts are usable here, else why they are not.
const std::string& sandbox_unavailable_reason();

#define KOLTA_REQUIRE_SANDBOX()                                                         \
  do {                                                                                  \
    if (!::kolta_test::sandbox_unavailable_reason().empty())                            \
      GTEST_SKIP() << "needs root namespaces: " << ::kolta_test::sandbox_unavailable_reason(); \
  } while (0)

// A TCP port on 127.0.0.1 that was free a moment ago.
int free_port();

// User plus system CPU time of a process, in seconds; -1 when unreadable.
double cpu_seconds(pid_t pid);

// Reads a whole file; empty when it cannot be read.
std::string read_file(const std::string& path);

struct SandboxOptions {
  // kolta.conf text; "@PORT@" is replaced by a free port.
  std::string config = "port=@PORT@\n";
  std::vector<std::string> args;  // extra daemon arguments
  bool wait_listening = true;     // start() waits for "Listening... "
};

class Sandbox {
 public:
  Sandbox() = default;
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;
  ~Sandbox();

  // Starts the daemon. False (with error()) when it could not be brought up.
  bool start(const SandboxOptions& options = {});
  const std::string& error() const { return error_; }

  pid_t pid() const { return pid_; }
  int port() const { return port_; }  // 0 when the config had no "@PORT@"
  const std::string& host_dir() const { return dir_; }
  // Host-side path of `path` as the daemon sees it.
  std::string path(std::string_view path) const;

  std::string out() const;  // stdout log so far
  std::string err() const;  // stderr log so far
  std::string power_log() const;  // lines the shutdown/init stubs wrote
  bool wait_out(std::string_view needle, int timeout_ms = 10000) const;
  bool wait_err(std::string_view needle, int timeout_ms = 10000) const;

  // The daemon's live children (its connection workers and what they run).
  std::vector<pid_t> children() const;

  // Waits for the daemon to exit; its wait status, or nullopt on timeout.
  std::optional<int> wait_exit(int timeout_ms);
  // SIGTERM to the process group, SIGKILL after `timeout_s`; the wait status.
  int stop(int timeout_s = 5);

 private:
  bool fail(std::string why);

  std::string dir_, error_;
  pid_t pid_ = -1;
  int port_ = 0;
  std::optional<int> status_;
};

}  // namespace kolta_test
