// Runs one koltad in a private sandbox for integration tests: own mount and
// IPC namespaces, /etc and /usr/sbin overlaid (kolta.conf and the power
// command stubs), a private /tmp, and its own session and process group.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kolta_test {

// Empty when namespaces and mounts are usable here, else why they are not.
const std::string& sandbox_unavailable_reason();

#define KOLTA_REQUIRE_SANDBOX()                                                          \
  if (const std::string& why = ::kolta_test::sandbox_unavailable_reason(); !why.empty()) \
  GTEST_SKIP() << "needs root and namespaces: " << why

// A TCP port on 127.0.0.1 that was free a moment ago.
int free_port();

// User plus system CPU time of a process, in seconds; -1 when unreadable.
double cpu_seconds(pid_t pid);

// Reads a whole file; empty when it cannot be read.
std::string read_file(const std::string& path);

struct SandboxOptions {
  // kolta.conf text; "@PORT@" is replaced by a free port.
  std::string config = "port=@PORT@\n";
  std::vector<std::string> args = {};  // extra daemon arguments
  bool wait_listening = true;          // start() waits for "Listening... "
  // The daemon binary; empty for $KOLTA_TEST_DAEMON, or where that is not
  // set, the one built with the tests.
  std::string daemon = {};
  // An emulator command that runs the daemon (for instance {"qemu-arm", "-L",
  // "/usr/arm-linux-gnueabihf"}), its first word a path or a name found by
  // PATH; empty to run the daemon directly. The emulator gets the daemon's
  // path inside the sandbox, then the daemon's arguments.
  std::vector<std::string> emulator = {};
  // A statically linked shell: when given, the daemon runs in an otherwise
  // empty root instead of the host's file system, one that holds only the
  // daemon (/usr/sbin/koltad), this shell as /bin/sh, /etc/kolta with the
  // configuration, the power stubs in /sbin, a private /tmp and /dev/null.
  // The daemon and the emulator must then be static programs too.
  std::string empty_root_shell = {};
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

  // The daemon's stdout or stderr so far, or the lines its shutdown and
  // init stubs wrote ("$0 $*" each).
  enum class Log { out, err, power };
  std::string log(Log which = Log::out) const;
  // Polls the log until it contains `needle`; false on timeout.
  bool wait_log(std::string_view needle, int timeout_ms = 10000, Log which = Log::out) const;

  // The daemon's live children.
  std::vector<pid_t> children() const;
  // Its children that were not there yet when it was listening: the workers
  // of the connections.
  std::vector<pid_t> workers() const;
  // The live (not zombie) members of its process group, also once it is gone.
  std::vector<pid_t> group_members() const;

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
  std::vector<pid_t> initial_children_;
};

}  // namespace kolta_test
