// Background processes through a sandboxed koltad: starting them, their
// state, their output, stopping them, and several clients at once.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <latch>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/sandbox.h"
#include "tests/support/vesk_client.h"

namespace kolta_test {
namespace {

using namespace std::chrono_literals;
using Args = std::vector<std::pair<std::string, std::string>>;

std::string request(const std::string& command, const Args& args = {}) {
  std::string r = "Request: " + command + "\r\n";
  for (const auto& [name, value] : args) r += name + ": " + value + "\r\n";
  return r + "\r\n";
}

std::string fail(const std::string& reason) {
  return "Reply: Fail\r\nReason: " + reason + "\r\n\r\n";
}

// The body of a Data reply framed exactly as the daemon frames text; any
// other reply comes back whole behind a marker, so a mismatch shows it.
std::string body(const std::string& reply) {
  std::size_t end = reply.find("\r\n\r\n");
  if (end != std::string::npos) {
    std::string data = reply.substr(end + 4);
    if (reply.compare(0, end + 4,
                      "Reply: Data\r\nContent-length: " + std::to_string(data.size()) +
                          "\r\nContent-Type: text/plain\r\n\r\n") == 0) {
      return data;
    }
  }
  return "<not data> " + reply;
}

std::string ask(VeskClient& c, const std::string& req, int timeout_ms = 5000) {
  return c.send(req) ? c.read_reply(timeout_ms) : "<send failed>";
}

// Starts `cmd`; its pid, or -1.
int start(VeskClient& c, const std::string& cmd, const std::string& args) {
  std::string data = body(ask(c, request("process_start", {{"cmd", cmd}, {"args", args}})));
  int pid = -1;
  if (std::sscanf(data.c_str(), "PID=%d\n", &pid) != 1 ||
      data != "PID=" + std::to_string(pid) + "\n")
    return -1;
  return pid;
}

// Polls the state until the process no longer runs; the last state text.
std::string final_state(VeskClient& c, int pid) {
  const std::string req = request("process_getState", {{"pid", std::to_string(pid)}});
  std::string data;
  for (int i = 0; i < 300; ++i) {
    data = body(ask(c, req));
    if (!data.starts_with("STATE=RUNNING\n")) break;
    std::this_thread::sleep_for(30ms);
  }
  return data;
}

std::string details(VeskClient& c, int pid, const std::string& src, const std::string& rp = "0",
                    int timeout_ms = 5000) {
  return ask(
      c, request("process_getDetails", {{"pid", std::to_string(pid)}, {"src", src}, {"rp", rp}}),
      timeout_ms);
}

class ProcessManager : public ::testing::Test {
 protected:
  void SetUp() override {
    KOLTA_REQUIRE_SANDBOX();
    ASSERT_TRUE(sb_.start()) << sb_.error();
    ASSERT_TRUE(c_.connect(sb_.port()));
  }

  // Writes an executable shell script into the daemon's /tmp.
  void script(const std::string& path, const std::string& text) {
    const std::string host = sb_.path(path);
    std::ofstream(host) << "#!/bin/sh\n" << text;
    ASSERT_EQ(::chmod(host.c_str(), 0755), 0) << host;
  }

  std::string output_file(const char* stream, int pid) const {
    return sb_.path("/tmp/kolta-bkprocess-" + std::string(stream) + "." + std::to_string(pid));
  }

  Sandbox sb_;
  VeskClient c_;
};

TEST_F(ProcessManager, ExitCodesAndOutputs) {
  script("/tmp/fail.sh", "echo 'to stdout'\necho 'to stderr' >&2\nprintf 'no newline'\nexit 3\n");
  script("/tmp/pass.sh", "exit 0\n");
  script("/tmp/big.sh", "head -c 5000000 /dev/urandom\n");

  const int failed = start(c_, "/tmp/fail.sh", "first");
  ASSERT_GT(failed, 0);
  EXPECT_EQ(final_state(c_, failed),
            "STATE=FAILED\nEXITCODE=3\nMSG=\nCMD=/tmp/fail.sh\nARGS=first\n");
  EXPECT_EQ(body(details(c_, failed, "stdout")), "to stdout\nno newline");
  EXPECT_EQ(body(details(c_, failed, "STDERR")), "to stderr\n");
  EXPECT_EQ(body(details(c_, failed, "StdErr")), "to stderr\n") << "rp=0 keeps the record";

  const int passed = start(c_, "/tmp/pass.sh", "x");
  ASSERT_GT(passed, 0);
  EXPECT_EQ(final_state(c_, passed), "STATE=PASSED\nEXITCODE=0\nMSG=\nCMD=/tmp/pass.sh\nARGS=x\n");
  EXPECT_EQ(body(details(c_, passed, "stdout")), "");

  const int big = start(c_, "/tmp/big.sh", "x");
  ASSERT_GT(big, 0);
  EXPECT_TRUE(final_state(c_, big).starts_with("STATE=PASSED\n"));
  const std::string expected = read_file(output_file("stdout", big));
  ASSERT_EQ(expected.size(), 5000000u);
  const std::string got = body(details(c_, big, "stdout", "0", 60000));
  EXPECT_TRUE(got == expected) << "got " << got.size() << " bytes: " << got.substr(0, 80);
  EXPECT_TRUE(c_.is_open());
}

TEST_F(ProcessManager, RemovingAProcess) {
  script("/tmp/out.sh", "echo out\necho err >&2\n");
  const int pid = start(c_, "/tmp/out.sh", "x");
  ASSERT_GT(pid, 0);
  ASSERT_TRUE(final_state(c_, pid).starts_with("STATE=PASSED\n"));
  EXPECT_EQ(ask(c_, request("process_getState", {{"pid", std::to_string(pid)}, {"rp", "-1"}})),
            fail("Error: optional argument 'rp' (remove process) must be 1|0 !"));

  ASSERT_TRUE(std::filesystem::exists(output_file("stderr", pid)));
  EXPECT_EQ(body(details(c_, pid, "stdout", "1")), "out\n");
  bool gone = false;
  for (int i = 0; i < 100 && !gone; ++i) {
    std::this_thread::sleep_for(20ms);
    gone = !std::filesystem::exists(output_file("stdout", pid)) &&
           !std::filesystem::exists(output_file("stderr", pid));
  }
  EXPECT_TRUE(gone);
  EXPECT_EQ(
      ask(c_, request("process_getState", {{"pid", std::to_string(pid)}})),
      fail("ERROR: cannot read process state ! ( your requested process id doesn't exist ! )"));

  // rp=1 on process_getState answers the state once, then the record is gone.
  const int other = start(c_, "/tmp/out.sh", "y");
  ASSERT_GT(other, 0);
  ASSERT_TRUE(final_state(c_, other).starts_with("STATE=PASSED\n"));
  EXPECT_EQ(
      body(ask(c_, request("process_getState", {{"pid", std::to_string(other)}, {"rp", "1"}}))),
      "STATE=PASSED\nEXITCODE=0\nMSG=\nCMD=/tmp/out.sh\nARGS=y\n");
  EXPECT_EQ(
      ask(c_, request("process_getState", {{"pid", std::to_string(other)}})),
      fail("ERROR: cannot read process state ! ( your requested process id doesn't exist ! )"));
}

TEST_F(ProcessManager, StoppingProcesses) {
  const int pid = start(c_, "/bin/sleep", "30");
  ASSERT_GT(pid, 0);
  EXPECT_EQ(details(c_, pid, "stdout"),
            fail("ERROR: process must be stopped before reading its results !"));
  const std::string stop = request("process_stop", {{"pid", std::to_string(pid)}});
  EXPECT_EQ(body(ask(c_, stop)), "STATE=DIED\nEXITCODE=15\nMSG=Terminated\n");
  EXPECT_EQ(ask(c_, stop), fail("ERROR: process_stop failed ! ( PM: process isn't running - what "
                                "should I stop - check state ! )"));

  // A program that ignores SIGTERM is killed after a grace period.
  script("/tmp/stubborn.sh", "trap '' TERM\nwhile :; do sleep 1; done\n");
  const int stubborn = start(c_, "/tmp/stubborn.sh", "x");
  ASSERT_GT(stubborn, 0);
  std::this_thread::sleep_for(200ms);  // let the shell install its trap
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(body(ask(c_, request("process_stop", {{"pid", std::to_string(stubborn)}}), 20000)),
            "STATE=DIED\nEXITCODE=9\nMSG=Killed\n");
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(took, 5s);
  EXPECT_LE(took, 9s);
}

TEST_F(ProcessManager, ArgumentsAndMissingPrograms) {
  script("/tmp/args.sh", "for a in \"$@\"; do echo \"[$a]\"; done\n");
  const int pid = start(c_, "/tmp/args.sh", "a  b \"x y\"");
  ASSERT_GT(pid, 0);
  ASSERT_TRUE(final_state(c_, pid).starts_with("STATE=PASSED\n"));
  EXPECT_EQ(body(details(c_, pid, "stdout")), "[a]\n[]\n[b]\n[\"x y\"]\n");

  const int missing = start(c_, "/nonexistent", "x");
  ASSERT_GT(missing, 0);
  EXPECT_EQ(final_state(c_, missing),
            "STATE=FAILED\nEXITCODE=255\nMSG=\nCMD=/nonexistent\nARGS=x\n");
  EXPECT_EQ(body(details(c_, missing, "stderr")),
            "FATAL: process exited unexpected.! (No such file or directory)\n");
}

TEST_F(ProcessManager, ArgumentErrorsKeepTheConnection) {
  const int pid = start(c_, "/bin/true", "x");
  ASSERT_GT(pid, 0);
  ASSERT_TRUE(final_state(c_, pid).starts_with("STATE=PASSED\n"));
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
    EXPECT_EQ(ask(c_, req), fail(reason)) << req;
    EXPECT_TRUE(c_.is_open()) << req;
  }
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
      r.pid = start(c, "/tmp/client" + std::to_string(i) + ".sh", "w" + std::to_string(i));
      if (r.pid <= 0) return;
      r.state = final_state(c, r.pid);
      r.output = body(details(c, r.pid, "stdout", "1"));
    });
  }
  for (std::thread& t : threads) t.join();

  for (int i = 0; i < kClients; ++i) {
    const std::string n = std::to_string(i);
    EXPECT_GT(results[i].pid, 0) << "client " << i << " got no pid";
    for (int j = 0; j < i && results[i].pid > 0; ++j) EXPECT_NE(results[i].pid, results[j].pid);
    EXPECT_EQ(results[i].state, "STATE=FAILED\nEXITCODE=" + std::to_string(20 + i) +
                                    "\nMSG=\nCMD=/tmp/client" + n + ".sh\nARGS=w" + n + "\n");
    EXPECT_EQ(results[i].output, "token-" + n + "-w" + n + "\n");
  }
  if (HasFailure()) ADD_FAILURE() << "daemon stderr:\n" << sb_.log(Sandbox::Log::err);
}

}  // namespace
}  // namespace kolta_test
