#include "client/remote_command.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace {

namespace fs = std::filesystem;

// The scripts run here as the daemon's "execute" runs them: /bin/sh SCRIPT.
class RemoteCommandScripts : public testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/kolta-command-test.XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    dir_ = dir;
    files_ = vesk_c_command_files_at(dir_ + "/cmd");
  }
  void TearDown() override { fs::remove_all(dir_); }

  void write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }
  std::string read(const std::string& path) {
    std::stringstream s;
    s << std::ifstream(path).rdbuf();
    return s.str();
  }

  pid_t spawn(const std::string& script, const std::string& arg0 = "/bin/sh") {
    pid_t pid = ::fork();
    if (pid == 0) {
      ::execl(arg0.c_str(), arg0.c_str(), script.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    return pid;
  }

  // Runs `body` through the script; the reply "execute" would give, with
  // the low bit set as when someone else's error file is not empty.
  vesk_c_command_end run(const std::string& body, bool* marker, const std::string& input = "") {
    fs::remove(files_.marker);
    if (!input.empty()) write(files_.input, input);
    write(files_.script, vesk_c_command_script(files_, body, !input.empty()));
    int status = 0;
    ::waitpid(spawn(files_.script), &status, 0);
    vesk_c_reply reply{};
    reply.kind = vesk_c_reply_kind::fail;
    std::snprintf(reply.reason, sizeof reply.reason, "RC=%d", WEXITSTATUS(status) | 1);
    *marker = fs::exists(files_.marker);
    vesk_c_command_end end;
    EXPECT_TRUE(vesk_c_command_decode(reply, *marker, &end)) << body;
    if (end.status_in_file) end.status = std::atoi(read(files_.status).c_str());
    return end;
  }

  std::string dir_;
  vesk_c_command_files files_;
};

TEST_F(RemoteCommandScripts, TheExitCodeTellsOutputsAndStatus) {
  bool marker = false;
  vesk_c_command_end end = run("true", &marker);
  EXPECT_TRUE(marker);
  EXPECT_FALSE(end.out || end.err || end.status_in_file);
  EXPECT_EQ(end.status, 0);

  end = run("echo out; echo err >&2; exit 29", &marker);
  EXPECT_TRUE(end.out && end.err && !end.status_in_file);
  EXPECT_EQ(end.status, 29);
  EXPECT_EQ(read(files_.out), "out\n");
  EXPECT_EQ(read(files_.err), "err\n");

  end = run("echo warn >&2; exit 200", &marker);
  EXPECT_TRUE(!end.out && end.err && end.status_in_file);
  EXPECT_EQ(end.status, 200);

  end = run("cat; cat", &marker, std::string("in\0put\n", 7));
  EXPECT_TRUE(end.out && !end.err);
  EXPECT_EQ(read(files_.out), std::string("in\0put\n", 7));
  end = run("cat", &marker);  // no input: /dev/null, never ours
  EXPECT_FALSE(end.out);

  std::vector<std::string> argv = {"/bin/sh", "-c", "echo \"$1\"; kill -KILL $$", "sh", "it's a word"};
  end = run(vesk_c_program_text(argv), &marker);
  EXPECT_TRUE(end.status_in_file);
  EXPECT_EQ(end.status, -9);
  EXPECT_EQ(read(files_.out), "it's a word\n");

  end = run("echo x; exec sh -c 'exit 6'", &marker);  // the trap is gone with the shell
  EXPECT_FALSE(marker);
  EXPECT_TRUE(end.out && end.err);
  EXPECT_EQ(end.status, 7);  // the raw code, low bit and all
}

TEST(RemoteCommandDecode, RepliesOtherThanTheTrapsCodes) {
  vesk_c_reply reply{};
  vesk_c_command_end end;
  reply.kind = vesk_c_reply_kind::fail;
  std::strcpy(reply.reason, "4242: Execution failed (");
  std::strcat(reply.reason, strsignal(SIGTERM));
  std::strcat(reply.reason, ")");
  EXPECT_TRUE(vesk_c_command_decode(reply, false, &end));
  EXPECT_EQ(end.status, -SIGTERM);
  reply.kind = vesk_c_reply_kind::data;
  EXPECT_TRUE(vesk_c_command_decode(reply, false, &end));
  EXPECT_EQ(end.status, 0);
  reply.kind = vesk_c_reply_kind::fail;
  std::strcpy(reply.reason, "STDERR PIPE ERROR !");
  EXPECT_FALSE(vesk_c_command_decode(reply, false, &end));
}

bool gone(pid_t pid) {
  for (int i = 0; i < 100; ++i) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), {});
    auto close = text.rfind(')');
    if (text.empty() || (close != std::string::npos && close + 2 < text.size() &&
                         (text[close + 2] == 'Z' || text[close + 2] == 'X')))
      return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

TEST_F(RemoteCommandScripts, TheStopperEndsTheCommandAndWhatItStarted) {
  write(files_.script, vesk_c_command_script(files_, "sleep 300 & echo $! >" + dir_ + "/child\nsleep 301\n", false));
  write(files_.stopper, vesk_c_stopper_script(files_));
  pid_t top = spawn(files_.script);
  for (int i = 0; i < 250 && read(dir_ + "/child").empty(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  pid_t child = std::atoi(read(dir_ + "/child").c_str());
  ASSERT_GT(child, 0);

  int status = 0;
  ::waitpid(spawn(files_.stopper), &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 2);
  ::waitpid(top, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
  EXPECT_TRUE(gone(child));
  EXPECT_FALSE(fs::exists(files_.marker));  // killed: the trap did not run

  ::waitpid(spawn(files_.stopper), &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 4);  // nothing left to stop

  // A shell replaced by its last command is found by the mark it left.
  write(files_.script, vesk_c_command_script(files_, "exec sleep 302", false));
  top = spawn(files_.script);
  for (int i = 0; i < 250 && read("/proc/" + std::to_string(top) + "/cmdline").find("302") == std::string::npos; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ::waitpid(spawn(files_.stopper), &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 2);
  ::waitpid(top, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
}

}  // namespace
