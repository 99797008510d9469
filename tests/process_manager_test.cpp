// Background processes through a sandboxed koltad: starting them, their
// state, their output, stopping them, and several clients at once.
#include <latch>

#include "tests/support/wire.h"

namespace kolta_test {
namespace {

using namespace std::chrono_literals;

const std::string kNoSuchPid =
    fail("ERROR: cannot read process state ! ( your requested process id doesn't exist ! )");

std::string details(VeskClient& c, int pid, const std::string& src, const std::string& rp = "0",
                    int timeout_ms = 5000) {
  return c.ask(
      request("process_getDetails", {{"pid", std::to_string(pid)}, {"src", src}, {"rp", rp}}),
      timeout_ms);
}

std::string get_state(VeskClient& c, int pid, const std::string& rp) {
  Args args{{"pid", std::to_string(pid)}};
  if (!rp.empty()) args.emplace_back("rp", rp);
  return c.ask(request("process_getState", args));
}

class ProcessManager : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    if (!IsSkipped() && !HasFatalFailure()) c_ = connect();
  }

  static std::string output_file(const char* stream, int pid) {
    return "/tmp/kolta-bkprocess-" + std::string(stream) + "." + std::to_string(pid);
  }

  VeskClient c_;
};

TEST_F(ProcessManager, ExitCodesAndOutputs) {
  script("/tmp/fail.sh", "echo 'to stdout'\necho 'to stderr' >&2\nprintf 'no newline'\nexit 3\n");
  script("/tmp/pass.sh", "exit 0\n");
  script("/tmp/big.sh", "head -c 5000000 /dev/urandom\n");

  const int failed = start_process(c_, "/tmp/fail.sh", "first");
  ASSERT_GT(failed, 0);
  EXPECT_EQ(final_state(c_, failed), state("FAILED", 3, "/tmp/fail.sh", "first"));
  EXPECT_EQ(details(c_, failed, "stdout"), data("to stdout\nno newline"));
  EXPECT_EQ(details(c_, failed, "STDERR"), data("to stderr\n"));
  EXPECT_EQ(details(c_, failed, "StdErr"), data("to stderr\n")) << "rp=0 keeps the record";

  const int passed = start_process(c_, "/tmp/pass.sh", "x");
  ASSERT_GT(passed, 0);
  EXPECT_EQ(final_state(c_, passed), state("PASSED", 0, "/tmp/pass.sh", "x"));
  EXPECT_EQ(details(c_, passed, "stdout"), data(""));

  const int big = start_process(c_, "/tmp/big.sh", "x");
  ASSERT_GT(big, 0);
  EXPECT_EQ(final_state(c_, big), state("PASSED", 0, "/tmp/big.sh", "x"));
  const std::string expected = read_file(sb_.path(output_file("stdout", big)));
  ASSERT_EQ(expected.size(), 5000000u);
  const std::string got = details(c_, big, "stdout", "0", 60000);
  EXPECT_TRUE(got == data(expected)) << "got " << got.size() << " bytes: " << got.substr(0, 80);
  EXPECT_TRUE(c_.is_open());
}

TEST_F(ProcessManager, RemovingAProcess) {
  script("/tmp/out.sh", "echo out\necho err >&2\n");
  const int pid = start_process(c_, "/tmp/out.sh", "x");
  ASSERT_GT(pid, 0);
  ASSERT_EQ(final_state(c_, pid), state("PASSED", 0, "/tmp/out.sh", "x"));

  // rp=1 on process_getDetails answers, then the record and its files go.
  ASSERT_TRUE(exists(output_file("stderr", pid)));
  EXPECT_EQ(details(c_, pid, "stdout", "1"), data("out\n"));
  bool gone = false;
  for (int i = 0; i < 100 && !gone; ++i) {
    std::this_thread::sleep_for(20ms);
    gone = !exists(output_file("stdout", pid)) && !exists(output_file("stderr", pid));
  }
  EXPECT_TRUE(gone);
  EXPECT_EQ(get_state(c_, pid, ""), kNoSuchPid);

  // rp=1 on process_getState answers the state once, then the record is gone.
  const int other = start_process(c_, "/tmp/out.sh", "y");
  ASSERT_GT(other, 0);
  ASSERT_EQ(final_state(c_, other), state("PASSED", 0, "/tmp/out.sh", "y"));
  EXPECT_EQ(get_state(c_, other, "1"), state("PASSED", 0, "/tmp/out.sh", "y"));
  EXPECT_EQ(get_state(c_, other, ""), kNoSuchPid);
}

TEST_F(ProcessManager, StoppingProcesses) {
  const int pid = start_process(c_, "/bin/sleep", "30");
  ASSERT_GT(pid, 0);
  EXPECT_EQ(details(c_, pid, "stdout"),
            fail("ERROR: process must be stopped before reading its results !"));
  const std::string stop = request("process_stop", {{"pid", std::to_string(pid)}});
  EXPECT_EQ(c_.ask(stop), data("STATE=DIED\nEXITCODE=15\nMSG=Terminated\n"));
  EXPECT_EQ(c_.ask(stop), fail("ERROR: process_stop failed ! ( PM: process isn't running - what "
                               "should I stop - check state ! )"));

  // A program that ignores SIGTERM is killed after a grace period.
  script("/tmp/stubborn.sh", "trap '' TERM\nwhile :; do sleep 1; done\n");
  const int stubborn = start_process(c_, "/tmp/stubborn.sh", "x");
  ASSERT_GT(stubborn, 0);
  std::this_thread::sleep_for(200ms);  // let the shell install its trap
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(c_.ask(request("process_stop", {{"pid", std::to_string(stubborn)}}), 20000),
            data("STATE=DIED\nEXITCODE=9\nMSG=Killed\n"));
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(took, 5s);
  EXPECT_LE(took, 9s);
}

TEST_F(ProcessManager, ArgumentsAndMissingPrograms) {
  script("/tmp/args.sh", "for a in \"$@\"; do echo \"[$a]\"; done\n");
  const int pid = start_process(c_, "/tmp/args.sh", "a  b \"x y\"");
  ASSERT_GT(pid, 0);
  ASSERT_EQ(final_state(c_, pid), state("PASSED", 0, "/tmp/args.sh", "a  b \"x y\""));
  EXPECT_EQ(details(c_, pid, "stdout"), data("[a]\n[]\n[b]\n[\"x y\"]\n"));

  const int missing = start_process(c_, "/nonexistent", "x");
  ASSERT_GT(missing, 0);
  EXPECT_EQ(final_state(c_, missing), state("FAILED", 255, "/nonexistent", "x"));
  EXPECT_EQ(details(c_, missing, "stderr"),
            data("FATAL: process exited unexpected.! (No such file or directory)\n"));
}

TEST_F(ProcessManager, ArgumentErrorsKeepTheConnection) {
  const int pid = start_process(c_, "/bin/true", "x");
  ASSERT_GT(pid, 0);
  ASSERT_EQ(final_state(c_, pid), state("PASSED", 0, "/bin/true", "x"));
  const std::string p = std::to_string(pid);
  const std::pair<std::string, std::string> cases[] = {
      {request("process_start", {{"args", "x"}}), "Error: argument 'cmd' required !"},
      {request("process_start", {{"cmd", "/bin/true"}}), "Error: argument 'args' required !"},
      {request("process_getState", {{"pid", p}, {"rp", "-1"}}),
       "Error: optional argument 'rp' (remove process) must be 1|0 !"},
      {request("process_getDetails", {{"pid", p}, {"src", "stdout"}}),
       "Error: argument 'rp' (1|0) required !"},
      {request("process_getDetails", {{"pid", p}, {"src", "foo"}, {"rp", "0"}}),
       "Parameter 'src': unknown Identifier"},
  };
  for (const auto& [req, reason] : cases) {
    EXPECT_EQ(c_.ask(req), fail(reason)) << req;
    EXPECT_TRUE(c_.is_open()) << req;
  }
  // A refused rp leaves the record in place.
  EXPECT_EQ(get_state(c_, pid, ""), state("PASSED", 0, "/bin/true", "x"));
}

TEST_F(ProcessManager, EightClientsAtOnce) {
  constexpr int kClients = 8;
  for (int i = 0; i < kClients; ++i) {
    const std::string n = std::to_string(i);
    script("/tmp/client" + n + ".sh",
           "sleep 0.3\necho token-" + n + "-$1\nexit " + std::to_string(20 + i) + "\n");
  }
  struct Result {
    int pid = -1;
    std::string state, output;
  };
  std::vector<Result> results(kClients);
  std::latch ready(kClients);
  std::vector<std::thread> threads;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      VeskClient c;
      bool connected = c.connect(sb_.port());
      ready.arrive_and_wait();
      if (!connected) return;
      Result& r = results[i];
      r.pid = start_process(c, "/tmp/client" + std::to_string(i) + ".sh", "w" + std::to_string(i));
      if (r.pid <= 0) return;
      r.state = final_state(c, r.pid);
      r.output = details(c, r.pid, "stdout", "1");
    });
  }
  for (std::thread& t : threads) t.join();

  for (int i = 0; i < kClients; ++i) {
    const std::string n = std::to_string(i);
    EXPECT_GT(results[i].pid, 0) << "client " << i << " got no pid";
    for (int j = 0; j < i && results[i].pid > 0; ++j) EXPECT_NE(results[i].pid, results[j].pid);
    EXPECT_EQ(results[i].state, state("FAILED", 20 + i, "/tmp/client" + n + ".sh", "w" + n));
    EXPECT_EQ(results[i].output, data("token-" + n + "-w" + n + "\n"));
  }
  if (HasFailure()) ADD_FAILURE() << "daemon stderr:\n" << sb_.log(Sandbox::Log::err);
}

}  // namespace
}  // namespace kolta_test
