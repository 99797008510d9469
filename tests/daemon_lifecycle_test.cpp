// A sandboxed koltad's whole life: its start-up banner and options, the
// informational commands, and the clean-up on SIGTERM.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/msg.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/sandbox.h"
#include "tests/support/vesk_client.h"

namespace kolta_test {
namespace {

using namespace std::chrono_literals;

std::string ask(VeskClient& c, const std::string& req) {
  return c.send(req) ? c.read_reply() : "<send failed>";
}

// Sends `command` on a fresh connection; everything until the close, or a
// marker when the connection stays open.
std::string reply_and_close(int port, const std::string& command) {
  VeskClient c;
  if (!c.connect(port) || !c.send("Request: " + command + "\r\n\r\n")) return "<no connection>";
  bool closed = false;
  std::string reply = c.read_until_close(3000, &closed);
  return closed ? reply : "<still open> " + reply;
}

// Starts a background process; its pid, or -1.
int start(VeskClient& c, const std::string& cmd, const std::string& args) {
  std::string reply =
      ask(c, "Request: process_start\r\ncmd: " + cmd + "\r\nargs: " + args + "\r\n\r\n");
  std::size_t at = reply.find("\r\n\r\nPID=");
  return at == std::string::npos ? -1 : std::stoi(reply.substr(at + 8));
}

// msgget of the process-manager queue (key 4993) inside the IPC namespace of
// `pid`: 0 when the queue exists, else the errno.
int queue_lookup(pid_t pid) {
  int ns = ::open(("/proc/" + std::to_string(pid) + "/ns/ipc").c_str(), O_RDONLY | O_CLOEXEC);
  if (ns < 0) return -1;
  pid_t child = fork();
  if (child == 0) {
    if (::setns(ns, CLONE_NEWIPC) != 0) _exit(255);
    _exit(::msgget(4993, 0) >= 0 ? 0 : errno);
  }
  ::close(ns);
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

// The live (not zombie) members of process group `group`.
std::vector<pid_t> live_group_members(pid_t group) {
  std::vector<pid_t> members;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::string stat = read_file("/proc/" + name + "/stat");
    std::size_t close = stat.rfind(')');
    if (close == std::string::npos) continue;
    char state = 0;
    int ppid = 0, pgrp = 0;
    if (std::sscanf(stat.c_str() + close + 2, "%c %d %d", &state, &ppid, &pgrp) == 3 &&
        pgrp == group && state != 'Z') {
      members.push_back(std::stoi(name));
    }
  }
  return members;
}

TEST(DaemonLifecycle, StartupBannerAndConfiguredPort) {
  KOLTA_REQUIRE_SANDBOX();
  Sandbox sb;
  SandboxOptions options;
  options.config = "# a comment\nport=@PORT@\n";
  ASSERT_TRUE(sb.start(options)) << sb.error();
  ASSERT_TRUE(sb.wait_log(" ProcessManager Task started.\n"));
  const std::string log = sb.log();

  std::smatch m;
  const std::regex banner(
      "KOLTA Linux Remote Process Manager V 05\\.00  [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{4} "
      "[0-9]{2}:[0-9]{2}:[0-9]{2} \\(VESK\\)\n"
      "compiled-in options:\n"
      "\\( \\) supports concurrent client processing\n"
      "\\( \\) MULTITHREADED Clients\\.\n"
      "\n"
      "VESK-Server Library Version: 00\\.03\n");
  ASSERT_TRUE(std::regex_search(log, m, banner, std::regex_constants::match_continuous)) << log;
  EXPECT_NE(log.find("Comment\n", m.length()), std::string::npos) << log;

  // The task's line may follow "Listening... " on the same line.
  const std::regex task_started("[ \n]([0-9]+) ProcessManager Task started\\.\n");
  ASSERT_TRUE(std::regex_search(log, m, task_started)) << log;
  const std::vector<pid_t> children = sb.children();
  EXPECT_NE(std::ranges::count(children, std::stoi(m[1])), 0) << log;

  EXPECT_EQ(reply_and_close(sb.port(), "test"), "Reply: Success\r\n\r\n");
}

TEST(DaemonLifecycle, CommandLineOptions) {
  KOLTA_REQUIRE_SANDBOX();
  Sandbox help;
  SandboxOptions options;
  options.args = {"-h"};
  options.wait_listening = false;
  ASSERT_TRUE(help.start(options)) << help.error();
  std::optional<int> status = help.wait_exit(5000);
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 1) << *status;
  EXPECT_NE(help.log().find("Usage:\n-d .. enable network debugging"), std::string::npos)
      << help.log();

  Sandbox debug;
  options = {};
  options.args = {"-d"};
  ASSERT_TRUE(debug.start(options)) << debug.error();
  EXPECT_EQ(reply_and_close(debug.port(), "test"), "Reply: Success\r\n\r\n");
}

TEST(DaemonLifecycle, InformationCommands) {
  KOLTA_REQUIRE_SANDBOX();
  Sandbox sb;
  ASSERT_TRUE(sb.start()) << sb.error();
  utsname u{};
  ASSERT_EQ(::uname(&u), 0);
  const std::string text =
      std::string("DEVICE=KOLTA\nVERSION_SW=05.00\nVERSION_HW=00.00\nOS=LINUX\n") +
      "OS_VERSION=" + u.release + "\nDELAYED_TX_DATA=OFF\nEXEC_MODE=S\n";
  const std::string version = "Reply: Data\r\nContent-length: " + std::to_string(text.size()) +
                              "\r\nContent-Type: text/plain\r\n\r\n" + text;
  VeskClient c;
  ASSERT_TRUE(c.connect(sb.port()));
  EXPECT_EQ(ask(c, "Request: version\r\n\r\n"), version);
  EXPECT_EQ(ask(c, "Request: version\r\n\r\n"), version);
  EXPECT_TRUE(c.is_open());

  EXPECT_EQ(reply_and_close(sb.port(), "test"), "Reply: Success\r\n\r\n");
  for (const char* command :
       {"getCap", "exec_exclusive_prepare", "exec_exclusive", "exec_exclusive_getDetails"}) {
    EXPECT_EQ(reply_and_close(sb.port(), command),
              "Reply: Fail\r\nReason: not implemented in the moment !\r\n\r\n")
        << command;
  }
}

TEST(DaemonLifecycle, CleanupOnSigterm) {
  KOLTA_REQUIRE_SANDBOX();
  Sandbox sb;
  ASSERT_TRUE(sb.start()) << sb.error();
  std::vector<int> pids;
  {
    VeskClient c;
    ASSERT_TRUE(c.connect(sb.port()));
    for (const char* cmd : {"/bin/true", "/bin/echo"}) {
      pids.push_back(start(c, cmd, "done"));
      ASSERT_GT(pids.back(), 0);
      const std::string state =
          "Request: process_getState\r\npid: " + std::to_string(pids.back()) + "\r\n\r\n";
      for (int i = 0; i < 200 && ask(c, state).find("STATE=PASSED") == std::string::npos; ++i)
        std::this_thread::sleep_for(20ms);
    }
    pids.push_back(start(c, "/bin/sleep", "300"));
    ASSERT_GT(pids.back(), 0);
  }
  const pid_t sleeper = pids.back();
  const std::string tmp = "/proc/" + std::to_string(sleeper) + "/root/tmp/kolta-bkprocess-";
  for (int p : pids) {
    for (const char* stream : {"stdout.", "stderr."})
      ASSERT_TRUE(std::filesystem::exists(tmp + stream + std::to_string(p))) << p;
  }
  ASSERT_EQ(queue_lookup(sleeper), 0) << "the queue exists while the daemon runs";
  for (int i = 0; i < 200 && !sb.workers().empty(); ++i) std::this_thread::sleep_for(10ms);
  ASSERT_TRUE(sb.workers().empty());

  ASSERT_EQ(::kill(sb.pid(), SIGTERM), 0);
  std::optional<int> status = sb.wait_exit(6000);
  ASSERT_TRUE(status.has_value()) << "no exit within 6 s";
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;

  const std::string log = sb.log();
  const std::string me = "KOLTA-" + std::to_string(sb.pid()) + ": ";
  std::size_t at = 0;
  for (const std::string& line :
       {me + "Cleaning up...\n", me + "sending shutdown to the processmanager ..\n",
        std::string("PM: cleanup ..\n"), me + "cleanup done.\n"}) {
    at = log.find(line, at);
    ASSERT_NE(at, std::string::npos) << line << " (in order) in\n" << log;
  }
  for (int p : pids) {
    EXPECT_NE(log.find("WARNING: Process (PID=" + std::to_string(p) + ") was not used properly.\n"),
              std::string::npos)
        << p;
    for (const char* stream : {"stdout.", "stderr."})
      EXPECT_FALSE(std::filesystem::exists(tmp + stream + std::to_string(p))) << stream << p;
  }
  EXPECT_EQ(queue_lookup(sleeper), ENOENT);

  // The running program survives; nothing else of the daemon is left.
  EXPECT_EQ(live_group_members(sb.pid()), std::vector<pid_t>{sleeper});
}

}  // namespace
}  // namespace kolta_test
