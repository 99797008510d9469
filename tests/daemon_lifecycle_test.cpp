// A sandboxed koltad's whole life: its start-up banner and options, the
// informational commands, and the clean-up on SIGTERM.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/msg.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <regex>

#include "tests/support/namespaces.h"
#include "tests/support/wire.h"

namespace kolta_test {
namespace {

using namespace std::chrono_literals;

// msgget of the process-manager queue (key 4993) inside the IPC namespace of
// `pid`: 0 when the queue exists, else the errno.
int queue_lookup(pid_t pid) {
  return in_ipc_namespace(pid, [] { return ::msgget(4993, 0) >= 0 ? 0 : errno; });
}

TEST(DaemonLifecycle, StartupBannerAndConfiguredPort) {
  KOLTA_REQUIRE_SANDBOX();
  Sandbox sb;
  ASSERT_TRUE(sb.start({.config = "# a comment\nport=@PORT@\n"})) << sb.error();
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

  EXPECT_EQ(connect_to(sb.port()).ask_and_close(request("test")), kSuccess);

  // Room for 64 waiting connections: a burst of clients is not reset.
  const std::string ss = "ss -Hltn 'sport = :" + std::to_string(sb.port()) + "'";
  std::string listening;
  if (FILE* p = ::popen(ss.c_str(), "r")) {
    char line[512];
    while (std::fgets(line, sizeof line, p) != nullptr) listening += line;
    ::pclose(p);
  }
  EXPECT_TRUE(std::regex_search(listening, std::regex("^LISTEN +0 +64 "))) << listening;
}

TEST(DaemonLifecycle, CommandLineOptions) {
  KOLTA_REQUIRE_SANDBOX();
  Sandbox help;
  ASSERT_TRUE(help.start({.args = {"-h"}, .wait_listening = false})) << help.error();
  std::optional<int> status = help.wait_exit(5000);
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 1) << *status;
  EXPECT_NE(help.log().find("Usage:\n-d .. enable network debugging"), std::string::npos)
      << help.log();

  Sandbox debug;
  ASSERT_TRUE(debug.start({.args = {"-d"}})) << debug.error();
  EXPECT_EQ(connect_to(debug.port()).ask_and_close(request("test")), kSuccess);
}

using RunningDaemon = DaemonTest;

TEST_F(RunningDaemon, InformationCommands) {
  utsname u{};
  ASSERT_EQ(::uname(&u), 0);
  const std::string version =
      data(std::string("DEVICE=KOLTA\nVERSION_SW=05.00\nVERSION_HW=00.00\nOS=LINUX\n") +
           "OS_VERSION=" + u.release + "\nDELAYED_TX_DATA=OFF\nEXEC_MODE=S\n");
  VeskClient c = connect();
  EXPECT_EQ(c.ask(request("version")), version);
  EXPECT_EQ(c.ask(request("version")), version);
  EXPECT_TRUE(c.is_open());
  for (const char* command :
       {"getCap", "exec_exclusive_prepare", "exec_exclusive", "exec_exclusive_getDetails"}) {
    EXPECT_EQ(connect().ask_and_close(request(command)), fail("not implemented in the moment !"))
        << command;
  }
}

TEST_F(RunningDaemon, CleanupOnSigterm) {
  std::vector<int> pids;
  {
    VeskClient c = connect();
    for (const char* cmd : {"/bin/true", "/bin/echo"}) {
      pids.push_back(start_process(c, cmd, "done"));
      ASSERT_GT(pids.back(), 0);
      ASSERT_EQ(final_state(c, pids.back()), state("PASSED", 0, cmd, "done"));
    }
    pids.push_back(start_process(c, "/bin/sleep", "300"));
    ASSERT_GT(pids.back(), 0);
  }
  const pid_t sleeper = pids.back();
  const std::string tmp = "/proc/" + std::to_string(sleeper) + "/root/tmp/kolta-bkprocess-";
  for (int p : pids) {
    for (const char* stream : {"stdout.", "stderr."})
      ASSERT_TRUE(std::filesystem::exists(tmp + stream + std::to_string(p))) << p;
  }
  ASSERT_EQ(queue_lookup(sleeper), 0) << "the queue exists while the daemon runs";
  for (int i = 0; i < 200 && !sb_.workers().empty(); ++i) std::this_thread::sleep_for(10ms);
  ASSERT_TRUE(sb_.workers().empty());

  ASSERT_EQ(::kill(sb_.pid(), SIGTERM), 0);
  std::optional<int> status = sb_.wait_exit(6000);
  ASSERT_TRUE(status.has_value()) << "no exit within 6 s";
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;

  const std::string log = sb_.log();
  std::smatch task;
  ASSERT_TRUE(std::regex_search(log, task, std::regex("([0-9]+) ProcessManager Task started")));
  const std::string me = "KOLTA-" + std::to_string(sb_.pid()) + ": ";
  std::size_t at = 0;
  // The reaper stays in force during the clean-up: the task's exit is logged.
  for (const std::string& line :
       {me + "Cleaning up...\n", me + "sending shutdown to the processmanager ..\n",
        std::string("PM: cleanup ..\n"),
        "VESK_S: pid=" + task[1].str() + " has exited normally with state=0.\n",
        me + "cleanup done.\n"}) {
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
  EXPECT_EQ(sb_.group_members(), std::vector<pid_t>{sleeper});
}

}  // namespace
}  // namespace kolta_test
