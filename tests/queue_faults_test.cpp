// The process-manager queue under faults: who may use it, what a hostile or
// oversized message does, answers nobody takes, a task that is killed, and
// many processes at once.
#include <signal.h>
#include <sys/msg.h>

#include <algorithm>
#include <fstream>
#include <regex>

#include "tests/support/namespaces.h"
#include "tests/support/wire.h"

namespace kolta_test {
namespace {

using namespace std::chrono_literals;

class QueueFaults : public DaemonTest {
 protected:
  pid_t task_pid() {
    EXPECT_TRUE(sb_.wait_log(" ProcessManager Task started.\n"));
    std::smatch m;
    const std::string log = sb_.log();
    if (!std::regex_search(log, m, std::regex("([0-9]+) ProcessManager Task started"))) return -1;
    return std::stoi(m[1]);
  }
  void expect_test_answered() {
    EXPECT_EQ(connect().ask_and_close(request("test")), kSuccess) << "the daemon must still answer";
  }
  // The workers that came after `before`.
  std::vector<pid_t> new_workers(const std::vector<pid_t>& before) {
    std::vector<pid_t> now = sb_.workers();
    std::erase_if(now, [&](pid_t p) { return std::ranges::count(before, p) != 0; });
    return now;
  }
};

TEST_F(QueueFaults, OnlyTheDaemonsUserMayUseTheQueue) {
  VeskClient c = connect();
  ASSERT_GT(start_process(c, "/bin/true", "x"), 0);
  const int mode = in_ipc_namespace(sb_.pid(), [] {
    msqid_ds ds{};
    int id = ::msgget(4993, 0);
    return id >= 0 && ::msgctl(id, IPC_STAT, &ds) == 0 ? static_cast<int>(ds.msg_perm.mode & 0777) / 8 : 255;
  });
  EXPECT_EQ(mode, 0600 / 8) << "mode 0" << std::oct << mode * 8;
}

TEST_F(QueueFaults, OversizedMessageDoesNotWedgeTheTask) {
  VeskClient c = connect();
  ASSERT_GT(start_process(c, "/bin/true", "x"), 0);
  // A request of 8000 bytes with an unknown command code.
  ASSERT_EQ(in_ipc_namespace(sb_.pid(),
                             [] {
                               struct {
                                 long type = 1;
                                 std::int32_t body[2000] = {1, 2};
                               } big;
                               return ::msgsnd(::msgget(4993, 0), &big, sizeof big.body, 0);
                             }),
            0);
  EXPECT_TRUE(sb_.wait_log("pm_handleMessage: ERROR: dont know what you mean !\n", 5000,
                           Sandbox::Log::err));
  EXPECT_GT(start_process(c, "/bin/true", "y"), 0);
}

TEST_F(QueueFaults, AnswersForRequestersThatHaveGoneAreThrownAway) {
  // The task is kept busy stopping a program that ignores SIGTERM, while
  // three workers queue requests and are killed before their answers come.
  script("/tmp/stubborn.sh", "trap '' TERM\nwhile :; do sleep 1; done\n");
  VeskClient stopper = connect();
  const int stubborn = start_process(stopper, "/tmp/stubborn.sh", "x");
  ASSERT_GT(stubborn, 0);
  std::this_thread::sleep_for(200ms);
  ASSERT_TRUE(stopper.send(request("process_stop", {{"pid", std::to_string(stubborn)}})));
  std::this_thread::sleep_for(300ms);
  const std::vector<pid_t> before = sb_.workers();

  std::vector<VeskClient> gone(3);
  for (VeskClient& g : gone) {
    ASSERT_TRUE(g.connect(sb_.port()));
    ASSERT_TRUE(g.send(request("process_getState", {{"pid", "1"}})));
  }
  std::vector<pid_t> doomed;
  for (int i = 0; i < 100 && doomed.size() < 3; ++i) {
    std::this_thread::sleep_for(20ms);
    doomed = new_workers(before);
  }
  ASSERT_EQ(doomed.size(), 3u);
  std::this_thread::sleep_for(300ms);  // their requests are on the queue
  for (pid_t w : doomed) ::kill(w, SIGKILL);

  EXPECT_EQ(stopper.read_reply(15000), data("STATE=DIED\nEXITCODE=9\nMSG=Killed\n"));
  // Their answers fill the queue; the next answer still gets through.
  VeskClient later = connect();
  EXPECT_GT(start_process(later, "/bin/true", "x"), 0) << sb_.log(Sandbox::Log::err);
  expect_test_answered();
}

TEST_F(QueueFaults, WorkersGiveUpWhenTheTaskIsKilled) {
  script("/tmp/stubborn.sh", "trap '' TERM\nwhile :; do sleep 1; done\n");
  VeskClient stopper = connect(), asker = connect();
  const int stubborn = start_process(stopper, "/tmp/stubborn.sh", "x");
  ASSERT_GT(stubborn, 0);
  std::this_thread::sleep_for(200ms);
  ASSERT_TRUE(stopper.send(request("process_stop", {{"pid", std::to_string(stubborn)}})));
  std::this_thread::sleep_for(300ms);
  ASSERT_TRUE(asker.send(request("process_getState", {{"pid", std::to_string(stubborn)}})));
  std::this_thread::sleep_for(300ms);

  const pid_t task = task_pid();
  ASSERT_GT(task, 0);
  ASSERT_EQ(::kill(task, SIGKILL), 0);
  EXPECT_EQ(stopper.read_reply(10000), fail("ERROR: process_stop failed ! ( PM: error in msgrcv ! )"));
  EXPECT_EQ(asker.read_reply(10000),
            fail("ERROR: cannot read process state ! ( FATAL: error in msgrcv ! )"));
  expect_test_answered();
}

TEST_F(QueueFaults, FiveHundredProcessesRegisteredAtOnce) {
  constexpr int kProcesses = 500;
  VeskClient c = connect();
  std::vector<int> pids;
  for (int i = 0; i < kProcesses; ++i) {
    pids.push_back(start_process(c, "/bin/sleep", "3"));
    ASSERT_GT(pids.back(), 0) << i;
  }
  for (int pid : pids) ASSERT_EQ(final_state(c, pid), state("PASSED", 0, "/bin/sleep", "3")) << pid;
  expect_test_answered();

  // The clean-up forgets every one of them and deletes all their files.
  ASSERT_EQ(::kill(sb_.pid(), SIGTERM), 0);
  ASSERT_TRUE(sb_.wait_exit(10000).has_value());
  const std::string log = sb_.log();
  for (int pid : pids) {
    EXPECT_NE(log.find("WARNING: Process (PID=" + std::to_string(pid) + ") was not used properly.\n"),
              std::string::npos)
        << pid;
  }
}

TEST_F(QueueFaults, LaunchReplacesAnEndedRecordWithTheSamePid) {
  VeskClient c = connect();
  const int first = start_process(c, "/bin/true", "old");
  ASSERT_GT(first, 0);
  ASSERT_EQ(final_state(c, first), state("PASSED", 0, "/bin/true", "old"));
  // Have the system hand the same pid to the next process, as it does in time.
  int again = -1;
  for (int attempt = 0; attempt < 50 && again != first; ++attempt) {
    std::ofstream("/proc/sys/kernel/ns_last_pid") << first - 1;
    again = start_process(c, "/bin/sleep", "30");
    ASSERT_GT(again, 0);
  }
  if (again != first) GTEST_SKIP() << "pid " << first << " was not handed out again";
  const std::string pid = std::to_string(first);
  EXPECT_EQ(c.ask(request("process_getState", {{"pid", pid}})),
            data("STATE=RUNNING\nEXITCODE=0\nMSG=\nCMD=/bin/sleep\nARGS=30\n"));
  EXPECT_EQ(c.ask(request("process_stop", {{"pid", pid}})),
            data("STATE=DIED\nEXITCODE=15\nMSG=Terminated\n"));
}

}  // namespace
}  // namespace kolta_test
