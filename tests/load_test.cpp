// 32 clients at once for about 20 seconds, mixing every kind of request:
// every request is answered, every file comes back whole, no connection is
// reset, and afterwards no worker is left and the daemon has not grown.
#include <random>

#include "lib/md5.h"
#include "tests/support/wire.h"

namespace kolta_test {
namespace {

using namespace std::chrono_literals;

constexpr int kClients = 32;
constexpr auto kDuration = 20s;

// Resident memory of a process in KiB.
long rss_kib(pid_t pid) {
  const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
  const std::size_t at = status.find("VmRSS:");
  return at == std::string::npos ? -1 : std::stol(status.substr(at + 6));
}

class Load : public DaemonTest {
 protected:
  // One client's mix until the deadline; what went wrong, if anything.
  std::string run_client(int id, std::chrono::steady_clock::time_point deadline, int* answered) {
    std::mt19937_64 rng(static_cast<unsigned>(id) * 7919u + 1);
    VeskClient c;
    if (!c.connect(sb_.port())) return "cannot connect";
    const std::string me = "c" + std::to_string(id);
    for (int n = 0; std::chrono::steady_clock::now() < deadline; ++n) {
      const std::string token = me + "-" + std::to_string(n);
      std::string why;
      switch (rng() % 6) {
        case 0:
          if (connect().ask_and_close(request("test")) != kSuccess) why = "test";
          break;
        case 1:
          if (c.ask(request("version")).find("\r\n\r\nDEVICE=KOLTA\n") == std::string::npos) why = "version";
          break;
        case 2:
          // Every "system" shares the same output files, and the last writer
          // wins: only the form of the reply is certain.
          if (!c.ask(request("system", {{"cmd", "echo " + token}}), 10000).starts_with("Reply: Data\r\n")) {
            why = "system";
          }
          break;
        case 3: {
          const std::size_t size = rng() % 2 ? rng() % (64 << 10) : rng() % (8 << 20);
          std::string body(size, '\0');
          for (char& b : body) b = static_cast<char>(rng());
          const std::string file = "/tmp/load-" + token;
          const std::string put = request("putFile", {{"file", file}, {"md5_sig", md5_text(body)},
                                                      {"content-length", std::to_string(size)}});
          if (c.ask(put + body, 30000) != kSuccess) {
            why = "putFile";
          } else {
            const std::string reply = c.ask(request("getFile", {{"file", file}}), 30000);
            const std::string head = "Reply: Data\r\nContent-length: " + std::to_string(size) +
                                     "\r\nContent-Type: file/binary\r\n\r\n";
            if (!reply.starts_with(head) || md5_text(reply.substr(head.size())) != md5_text(body)) why = "getFile";
            if (c.ask(request("remFile", {{"file", file}})) != kSuccess) why += " remFile";
          }
          break;
        }
        case 4: {
          const int pid = start_process(c, "/bin/echo", token);
          if (pid <= 0 || final_state(c, pid) != state("PASSED", 0, "/bin/echo", token) ||
              c.ask(request("process_getDetails", {{"pid", std::to_string(pid)}, {"rp", "1"}, {"src", "stdout"}})) !=
                  data(token + "\n")) {
            why = "process output";
          }
          break;
        }
        default: {
          const int pid = start_process(c, "/bin/sleep", "30");
          const std::string p = std::to_string(pid);
          if (pid <= 0 || c.ask(request("process_stop", {{"pid", p}}), 15000) !=
                              data("STATE=DIED\nEXITCODE=15\nMSG=Terminated\n") ||
              c.ask(request("process_getState", {{"pid", p}, {"rp", "1"}})) !=
                  data("STATE=DIED\nEXITCODE=15\nMSG=Terminated\nCMD=/bin/sleep\nARGS=30\n")) {
            why = "process stop";
          }
          break;
        }
      }
      if (!why.empty()) return why + " (" + token + ")";
      ++*answered;
    }
    return "";
  }
};

TEST_F(Load, ThirtyTwoClientsMixingEverything) {
  // A first round so that both processes have their working memory.
  for (int i = 0; i < 3; ++i) {
    int answered = 0;
    EXPECT_EQ(run_client(1000 + i, std::chrono::steady_clock::now() + 1s, &answered), "");
  }
  ASSERT_TRUE(sb_.wait_log(" ProcessManager Task started.\n"));
  const std::vector<pid_t> initial = sb_.children();
  ASSERT_EQ(initial.size(), 1u) << "only the task";
  const long daemon_before = rss_kib(sb_.pid()), task_before = rss_kib(initial[0]);

  std::vector<std::string> problems(kClients);
  std::vector<int> answered(kClients, 0);
  const auto deadline = std::chrono::steady_clock::now() + kDuration;
  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.emplace_back([&, i] { problems[i] = run_client(i, deadline, &answered[i]); });
  }
  for (std::thread& t : clients) t.join();
  for (int i = 0; i < kClients; ++i) {
    EXPECT_EQ(problems[i], "") << "client " << i << " after " << answered[i] << " answers";
    EXPECT_GT(answered[i], 0) << "client " << i;
  }

  // No worker or zombie is left, and the daemon answers as before.
  for (int i = 0; i < 500 && sb_.children().size() > 1; ++i) std::this_thread::sleep_for(10ms);
  EXPECT_EQ(sb_.children(), initial);
  EXPECT_EQ(connect().ask_and_close(request("test")), kSuccess);
  EXPECT_LE(rss_kib(sb_.pid()), daemon_before + 1024) << "the accept loop grew";
  EXPECT_LE(rss_kib(initial[0]), task_before + 4096) << "the process manager grew";
  if (HasFailure()) ADD_FAILURE() << "daemon stderr:\n" << sb_.log(Sandbox::Log::err).substr(0, 4000);
}

}  // namespace
}  // namespace kolta_test
