// The device commands over real TCP against a sandboxed koltad: file
// transfer, shell and timed execution, the connection settings and the power
// commands (which only reach the sandbox's stubs).
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <regex>
#include <thread>
#include <utility>
#include <vector>

#include "lib/md5.h"
#include "tests/support/sandbox.h"
#include "tests/support/vesk_client.h"

namespace kolta_test {
namespace {

using Args = std::vector<std::pair<std::string, std::string>>;

const std::string kSuccess = "Reply: Success\r\n\r\n";
const std::string kHelp = "Request: help\r\n\r\n";

std::string request(const std::string& command, const Args& args = {}) {
  std::string r = "Request: " + command + "\r\n";
  for (const auto& [name, value] : args) r += name + ": " + value + "\r\n";
  return r + "\r\n";
}

std::string put_request(const std::string& file, const std::string& sig, const std::string& body) {
  return request(
             "putFile",
             {{"file", file}, {"md5_sig", sig}, {"content-length", std::to_string(body.size())}}) +
         body;
}

std::string fail(const std::string& reason) {
  return "Reply: Fail\r\nReason: " + reason + "\r\n\r\n";
}

std::string data(const std::string& type, const std::string& body) {
  return "Reply: Data\r\nContent-length: " + std::to_string(body.size()) +
         "\r\nContent-Type: " + type + "\r\n\r\n" + body;
}

std::string md5_text(const std::string& bytes, bool upper = true) {
  md5_context ctx;
  MD5Init(&ctx);
  MD5Update(&ctx, bytes.data(), bytes.size());
  std::uint8_t digest[16];
  MD5Final(digest, &ctx);
  std::string text;
  for (std::uint8_t b : digest) {
    char pair[3];
    std::snprintf(pair, sizeof pair, upper ? "%02X" : "%02x", b);
    text += pair;
  }
  return text;
}

std::string random_bytes(std::size_t n, unsigned seed) {
  std::mt19937_64 gen(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(gen());
  return s;
}

bool exists(const std::string& host_path) {
  struct stat st {};
  return ::lstat(host_path.c_str(), &st) == 0;
}

void write_host_file(const std::string& host_path, const std::string& text, mode_t mode) {
  std::ofstream(host_path, std::ios::binary) << text;
  ASSERT_EQ(::chmod(host_path.c_str(), mode), 0) << host_path;
}

class DeviceBase : public ::testing::Test {
 protected:
  void SetUp() override {
    KOLTA_REQUIRE_SANDBOX();
    ASSERT_TRUE(sb_.start()) << sb_.error();
  }

  VeskClient connect() {
    VeskClient c;
    EXPECT_TRUE(c.connect(sb_.port()));
    return c;
  }

  // Sends `bytes` and returns the one reply they get.
  static std::string ask(VeskClient& c, const std::string& bytes, int timeout_ms = 5000) {
    EXPECT_TRUE(c.send(bytes));
    return c.read_reply(timeout_ms);
  }

  Sandbox sb_;
};

class DeviceFiles : public DeviceBase {};
class DeviceShell : public DeviceBase {};
class DeviceExecute : public DeviceBase {};
class DeviceSettings : public DeviceBase {};
class DevicePower : public DeviceBase {};

TEST_F(DeviceFiles, TransfersAreByteExactAndSigned) {
  VeskClient c = connect();
  const std::size_t sizes[] = {0, 1, 513, 2048, 2049, std::size_t{64} << 20};
  for (std::size_t size : sizes) {
    SCOPED_TRACE(size);
    const std::string body = random_bytes(size, static_cast<unsigned>(size));
    const std::string file = "/tmp/up" + std::to_string(size), sig = md5_text(body);
    const std::string get = request("getFile", {{"file", file}});
    // An empty body is complete only once the bytes after it arrive.
    ASSERT_TRUE(c.send(put_request(file, size == 513 ? md5_text(body, false) : sig, body) +
                       (size == 0 ? get : "")));
    EXPECT_EQ(c.read_reply(60000), kSuccess);
    if (size != 0) {
      ASSERT_TRUE(c.send(get));
    }
    const std::string reply = c.read_reply(60000);
    EXPECT_TRUE(reply == data("file/binary", body)) << "reply of " << reply.size() << " bytes";
    EXPECT_TRUE(sb_.wait_log("Soll: " + sig + "\nIst: " + sig + "\n")) << sig;
  }

  // A wrong signature is only logged.
  const std::string body = "payload", wrong(32, 'A');
  EXPECT_EQ(ask(c, put_request("/tmp/wrong", wrong, body)), kSuccess);
  EXPECT_TRUE(sb_.wait_log("Soll: " + wrong + "\nIst: " + md5_text(body) + "\n"));
  EXPECT_EQ(read_file(sb_.path("/tmp/wrong")), body);
}

TEST_F(DeviceFiles, RefusedTransfersConsumeTheirBody) {
  VeskClient c = connect();
  // Each refused body is itself a request: were it left unread, it would be
  // answered in place of the next one.
  const std::string sig = md5_text(kHelp);
  EXPECT_EQ(ask(c, put_request("/tmp/short", sig.substr(0, 31), kHelp)),
            fail("Error: argument 'md5_sig' invalid format !"));
  EXPECT_FALSE(exists(sb_.path("/tmp/short")));
  const std::string length = std::to_string(kHelp.size());
  EXPECT_EQ(ask(c, request("putFile", {{"md5_sig", sig}, {"content-length", length}}) + kHelp),
            fail("Error: argument 'file' required !"));
  EXPECT_EQ(ask(c, put_request("/tmp/nodir/f", sig, kHelp)), fail("file open error !"));
  EXPECT_EQ(ask(c, request("getFile", {{"file", "/tmp/short"}})), fail("File not found."));

  ASSERT_EQ(ask(c, put_request("/tmp/gone", sig, kHelp)), kSuccess);
  ASSERT_TRUE(exists(sb_.path("/tmp/gone")));
  EXPECT_EQ(ask(c, request("remFile", {{"file", "/tmp/gone"}})), kSuccess);
  EXPECT_FALSE(exists(sb_.path("/tmp/gone")));
  EXPECT_EQ(ask(c, request("remFile", {{"file", "/tmp/gone"}})), fail("File not found."));
}

TEST_F(DeviceFiles, WriteErrorFailsTheTransferOnly) {
  // A full file system of the daemon's own: a small tmpfs in its mount namespace.
  ASSERT_EQ(::mkdir(sb_.path("/tmp/small").c_str(), 0755), 0);
  const std::string mount = "nsenter -t " + std::to_string(sb_.pid()) +
                            " -m mount -t tmpfs -o size=16k tmpfs /tmp/small";
  ASSERT_EQ(std::system(mount.c_str()), 0);
  VeskClient c = connect();
  const std::string body = random_bytes(100000, 7);
  const std::string reply = ask(c, put_request("/tmp/small/f", md5_text(body), body));
  EXPECT_TRUE(reply.starts_with("Reply: Fail\r\nReason: ")) << reply;
  EXPECT_NE(reply.find("write error: No space left on device"), std::string::npos) << reply;
  EXPECT_FALSE(exists(sb_.path("/tmp/small/f")));
  EXPECT_EQ(ask(c, kHelp), data("text/plain", "KOLTA VESK help"));
}

TEST_F(DeviceShell, ReplyFollowsExitStatusAndExecType) {
  VeskClient c = connect();
  EXPECT_EQ(ask(c, request("system", {{"cmd", "exit 3"}})), fail("Modul returned with error"));
  EXPECT_EQ(ask(c, request("system_getDetails", {{"src", "RC"}})), data("text/plain", "768"));
  EXPECT_EQ(ask(c, request("system", {{"cmd", "echo hi"}})), data("text/plain", "hi\n"));
  // The longest command the header carries still runs.
  const std::string xs(122, 'x');
  EXPECT_EQ(ask(c, request("system", {{"cmd", "echo " + xs}})), data("text/plain", xs + "\n"));

  EXPECT_EQ(ask(c, request("server_setup", {{"exec_type", "rod"}})),
            data("text/plain",
                 "LoadMethode=none\nlod_server_ip=127.0.0.0\nlod_server_port=10000\n"
                 "exec_type=rod\n"));
  EXPECT_EQ(ask(c, request("system", {{"cmd", "echo hi"}})), kSuccess);

  // The setting belongs to that connection only.
  VeskClient other = connect();
  EXPECT_NE(ask(other, request("server_setup")).find("exec_type=rmd\n"), std::string::npos);
}

TEST_F(DeviceShell, OutputFetch) {
  const std::string big = random_bytes(20000, 3);
  write_host_file(sb_.path("/tmp/big"), big, 0644);
  VeskClient c = connect();
  EXPECT_EQ(ask(c, request("system", {{"cmd", "head -c 20000 /tmp/big"}})),
            data("text/plain", big.substr(0, 8192)));
  EXPECT_EQ(ask(c, request("system_getDetails", {{"src", "STDOUT"}})), data("text/plain", big));
  EXPECT_FALSE(exists(sb_.path("/tmp/kolta-system-stdout.st")));
  EXPECT_EQ(ask(c, request("system_getDetails", {{"src", "stdout"}})),
            fail("unable to open stdout"));

  EXPECT_EQ(ask(c, request("system", {{"cmd", "sh -c 'echo oops >&2'"}})), data("text/plain", ""));
  EXPECT_EQ(ask(c, request("system_getDetails", {{"src", "sTdErR"}})),
            data("text/ascii", "oops\n"));
  EXPECT_EQ(ask(c, request("system_getDetails", {{"src", "both"}})),
            fail("Parameter 'src': unknown Identifier"));
}

TEST_F(DeviceExecute, ArgumentsAndExitCodes) {
  write_host_file(sb_.path("/tmp/args"), "#!/bin/sh\nfor a in \"$@\"; do echo \"[$a]\"; done\n",
                  0755);
  write_host_file(sb_.path("/tmp/rc"), "#!/bin/sh\necho \"err $1\" >&2\nexit \"$1\"\n", 0755);
  VeskClient c = connect();
  auto execute = [&](const std::string& cmd, const std::string& args) {
    Args a{{"cmd", cmd}};
    if (!args.empty()) a.emplace_back("args", args);
    return ask(c, request("execute", a));
  };
  auto details = [&](const std::string& src) {
    return ask(c, request("execute_getDetails", {{"src", src}}));
  };

  EXPECT_EQ(execute("/bin/echo", "a  \"b c\""), data("text/plain", "a  \"b c\"\n"));
  EXPECT_EQ(details("RC"), data("text/plain", "0"));
  EXPECT_EQ(execute("/tmp/args", "x  \"y z\" "), data("text/plain", "[x]\n[]\n[\"y z\"]\n[]\n"));
  EXPECT_EQ(execute("/tmp/args", ""), data("text/plain", "[]\n"));

  // Output on stderr sets the lowest bit of the code.
  EXPECT_EQ(execute("/tmp/rc", "0"), fail("RC=1"));
  EXPECT_EQ(execute("/tmp/rc", "2"), fail("RC=3"));
  EXPECT_EQ(details("RC"), data("text/plain", "3"));
  EXPECT_EQ(details("STDERR"), data("text/ascii", "err 2\n"));

  EXPECT_EQ(execute("/tmp/nosuch", ""), fail("RC=255"));
  EXPECT_EQ(details("stderr"),
            data("text/ascii", "FATAL: process exited unexpected.! (No such file or directory)\n"));
}

TEST_F(DeviceExecute, TimeoutEndsTheProgram) {
  VeskClient c = connect();
  const auto start = std::chrono::steady_clock::now();
  const std::string reply =
      ask(c, request("execute", {{"cmd", "/bin/sleep"}, {"args", "30"}, {"timeout", "1"}}), 15000);
  const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::smatch m;
  ASSERT_TRUE(std::regex_match(
      reply, m,
      std::regex("Reply: Fail\r\nReason: ([0-9]+): Execution failed \\(Terminated\\)\r\n\r\n")))
      << reply;
  EXPECT_GT(std::stol(m[1]), 0);
  EXPECT_GE(s, 2.0);
  EXPECT_LE(s, 6.0);
  EXPECT_EQ(ask(c, kHelp), data("text/plain", "KOLTA VESK help"));
}

TEST_F(DeviceSettings, RefusalsAndPortWrap) {
  auto setup = [](const std::string& port) {
    return data("text/plain", "LoadMethode=none\nlod_server_ip=127.0.0.0\nlod_server_port=" + port +
                                  "\nexec_type=rmd\n");
  };
  VeskClient c = connect();
  EXPECT_EQ(ask(c, request("server_setup", {{"LoadMethode", "LOD"}})),
            fail("unknown 'LoadMethode' = 'LOD'"));
  EXPECT_EQ(ask(c, request("server_setup", {{"lod_server_port", "0"}})),
            fail("portnumber out of range"));
  // The refused port has been taken all the same.
  EXPECT_EQ(ask(c, request("server_setup")), setup("0"));
  EXPECT_EQ(ask(c, request("server_setup", {{"lod_server_port", "-1"}})), setup("65535"));

  ASSERT_TRUE(c.send(request("server_reset")));
  bool closed = false;
  EXPECT_EQ(c.read_until_close(3000, &closed), kSuccess);
  EXPECT_TRUE(closed);
}

TEST_F(DevicePower, RebootAndShutdownReachOnlyTheStubs) {
  VeskClient c = connect();
  // "shutdown" is looked up by PATH, which must lead to the stub.
  EXPECT_EQ(ask(c, request("system", {{"cmd", "echo $PATH $(command -v shutdown)"}})),
            data("text/plain", "/usr/sbin:/usr/bin:/sbin:/bin /usr/sbin/shutdown\n"));
  EXPECT_EQ(ask(c, request("reboot")), fail("need mode parameter warm|cold"));
  EXPECT_EQ(ask(c, request("reboot", {{"mode", "Warm"}})), fail("unknown 'mode' = 'Warm'"));
  EXPECT_EQ(sb_.log(Sandbox::Log::power), "");

  auto ask_and_close = [&](const std::string& bytes, const std::string& reply) {
    VeskClient one = connect();
    ASSERT_TRUE(one.send(bytes));
    bool closed = false;
    EXPECT_EQ(one.read_until_close(5000, &closed), reply) << bytes;
    EXPECT_TRUE(closed) << bytes;
  };
  ASSERT_TRUE(c.send(request("reboot", {{"mode", "warm"}})));
  bool closed = false;
  EXPECT_EQ(c.read_until_close(5000, &closed), kSuccess);
  EXPECT_TRUE(closed);
  EXPECT_NE(sb_.log(Sandbox::Log::power).find("init 6\n"), std::string::npos);

  ask_and_close(request("reboot", {{"mode", "cold"}}), kSuccess);
  EXPECT_NE(sb_.log(Sandbox::Log::power).find("shutdown -r now\n"), std::string::npos);

  ask_and_close(request("shutdown"),
                "Reply: Data\r\nContent-length: 10\r\nContent-Type: text/plain\r\n\r\nSH_TIME=15");
  EXPECT_TRUE(sb_.wait_log("shutdown -h +0\n", 5000, Sandbox::Log::power))
      << sb_.log(Sandbox::Log::power);
}

TEST_F(DevicePower, ExitappEndsTheWholeGroup) {
  VeskClient c = connect();
  ASSERT_TRUE(c.send(request("exitapp")));
  bool closed = false;
  c.read_until_close(5000, &closed);
  EXPECT_TRUE(closed);

  const std::optional<int> status = sb_.wait_exit(5000);
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;

  // Members orphaned by the daemon come to this process: collect them and
  // look for any that is still alive.
  const pid_t group = sb_.pid();
  bool gone = false;
  for (int i = 0; i < 100 && !gone; ++i) {
    while (::waitpid(-group, nullptr, WNOHANG) > 0) {
    }
    gone = ::kill(-group, 0) == -1 && errno == ESRCH;
    if (!gone) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_TRUE(gone) << "a process of group " << group << " is still alive";
}

}  // namespace
}  // namespace kolta_test
