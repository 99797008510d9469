// The device commands over real TCP against a sandboxed koltad: file
// transfer, shell and timed execution, the connection settings and the power
// commands (which only reach the sandbox's stubs).
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>

#include "tests/support/wire.h"

namespace kolta_test {
namespace {

const std::string kHelp = request("help");
const std::string kHelpReply = data("KOLTA VESK help");

std::string put_request(const std::string& file, const std::string& sig, const std::string& body) {
  return request(
             "putFile",
             {{"file", file}, {"md5_sig", sig}, {"content-length", std::to_string(body.size())}}) +
         body;
}

using DeviceFiles = DaemonTest;
using DeviceShell = DaemonTest;
using DeviceExecute = DaemonTest;
using DeviceSettings = DaemonTest;
using DevicePower = DaemonTest;

TEST_F(DeviceFiles, TransfersAreByteExactAndSigned) {
  VeskClient c = connect();
  const std::size_t sizes[] = {0, 1, 513, 2048, 2049, std::size_t{64} << 20};
  for (std::size_t size : sizes) {
    SCOPED_TRACE(size);
    const std::string body = random_bytes(size, static_cast<unsigned>(size));
    const std::string file = "/tmp/up" + std::to_string(size), sig = md5_text(body);
    const std::string get = request("getFile", {{"file", file}});
    // An empty body is complete only once the bytes after it arrive.
    EXPECT_EQ(c.ask(put_request(file, size == 513 ? md5_text(body, false) : sig, body) +
                        (size == 0 ? get : ""),
                    60000),
              kSuccess);
    const std::string reply = size == 0 ? c.read_reply(60000) : c.ask(get, 60000);
    EXPECT_TRUE(reply == data(body, "file/binary")) << "reply of " << reply.size() << " bytes";
    EXPECT_TRUE(sb_.wait_log("Soll: " + sig + "\nIst: " + sig + "\n")) << sig;
  }
  // One line for every block the download was read in.
  EXPECT_TRUE(sb_.wait_log("Content-Type=file/binary\nsending block [2048]\nsending block [1]\nDone.\n"));

  // A wrong signature is only logged.
  const std::string body = "payload", wrong(32, 'A');
  EXPECT_EQ(c.ask(put_request("/tmp/wrong", wrong, body)), kSuccess);
  EXPECT_TRUE(sb_.wait_log("Soll: " + wrong + "\nIst: " + md5_text(body) + "\n"));
  EXPECT_EQ(read_file(sb_.path("/tmp/wrong")), body);
}

TEST_F(DeviceFiles, RefusedTransfersConsumeTheirBody) {
  VeskClient c = connect();
  // Each refused body is itself a request: were it left unread, it would be
  // answered in place of the next one.
  const std::string sig = md5_text(kHelp);
  EXPECT_EQ(c.ask(put_request("/tmp/short", sig.substr(0, 31), kHelp)),
            fail("Error: argument 'md5_sig' invalid format !"));
  EXPECT_FALSE(exists("/tmp/short"));
  const std::string length = std::to_string(kHelp.size());
  EXPECT_EQ(c.ask(request("putFile", {{"md5_sig", sig}, {"content-length", length}}) + kHelp),
            fail("Error: argument 'file' required !"));
  EXPECT_EQ(c.ask(put_request("/tmp/nodir/f", sig, kHelp)), fail("file open error !"));
  EXPECT_EQ(c.ask(request("getFile", {{"file", "/tmp/short"}})), fail("File not found."));

  ASSERT_EQ(c.ask(put_request("/tmp/gone", sig, kHelp)), kSuccess);
  ASSERT_TRUE(exists("/tmp/gone"));
  EXPECT_EQ(c.ask(request("remFile", {{"file", "/tmp/gone"}})), kSuccess);
  EXPECT_FALSE(exists("/tmp/gone"));
  EXPECT_EQ(c.ask(request("remFile", {{"file", "/tmp/gone"}})), fail("File not found."));
}

TEST_F(DeviceFiles, WriteErrorFailsTheTransferOnly) {
  // A full file system of the daemon's own: a small tmpfs in its mount namespace.
  ASSERT_EQ(::mkdir(sb_.path("/tmp/small").c_str(), 0755), 0);
  const std::string mount = "nsenter -t " + std::to_string(sb_.pid()) +
                            " -m mount -t tmpfs -o size=16k tmpfs /tmp/small";
  ASSERT_EQ(std::system(mount.c_str()), 0);
  VeskClient c = connect();
  const std::string body = random_bytes(100000, 7);
  const std::string reply = c.ask(put_request("/tmp/small/f", md5_text(body), body));
  EXPECT_TRUE(reply.starts_with("Reply: Fail\r\nReason: ")) << reply;
  EXPECT_NE(reply.find("write error: No space left on device"), std::string::npos) << reply;
  EXPECT_FALSE(exists("/tmp/small/f"));
  EXPECT_EQ(c.ask(kHelp), kHelpReply);
}

TEST_F(DeviceShell, ReplyFollowsExitStatusAndExecType) {
  VeskClient c = connect();
  EXPECT_EQ(c.ask(request("system", {{"cmd", "exit 3"}})), fail("Modul returned with error"));
  EXPECT_EQ(c.ask(request("system_getDetails", {{"src", "RC"}})), data("768"));
  EXPECT_EQ(c.ask(request("system", {{"cmd", "echo hi"}})), data("hi\n"));
  // The longest command the header carries still runs.
  const std::string xs(122, 'x');
  EXPECT_EQ(c.ask(request("system", {{"cmd", "echo " + xs}})), data(xs + "\n"));

  EXPECT_EQ(c.ask(request("server_setup", {{"exec_type", "rod"}})),
            data("LoadMethode=none\nlod_server_ip=127.0.0.0\nlod_server_port=10000\n"
                 "exec_type=rod\n"));
  EXPECT_EQ(c.ask(request("system", {{"cmd", "echo hi"}})), kSuccess);

  // The setting belongs to that connection only.
  EXPECT_NE(connect().ask(request("server_setup")).find("exec_type=rmd\n"), std::string::npos);
}

TEST_F(DeviceShell, OutputFetch) {
  const std::string big = random_bytes(20000, 3);
  write_file("/tmp/big", big);
  VeskClient c = connect();
  EXPECT_EQ(c.ask(request("system", {{"cmd", "head -c 20000 /tmp/big"}})),
            data(big.substr(0, 8192)));
  EXPECT_EQ(c.ask(request("system_getDetails", {{"src", "STDOUT"}})), data(big));
  EXPECT_FALSE(exists("/tmp/kolta-system-stdout.st"));
  EXPECT_EQ(c.ask(request("system_getDetails", {{"src", "stdout"}})),
            fail("unable to open stdout"));

  EXPECT_EQ(c.ask(request("system", {{"cmd", "sh -c 'echo oops >&2'"}})), data(""));
  EXPECT_EQ(c.ask(request("system_getDetails", {{"src", "sTdErR"}})), data("oops\n", "text/ascii"));
  EXPECT_EQ(c.ask(request("system_getDetails", {{"src", "both"}})),
            fail("Parameter 'src': unknown Identifier"));
}

TEST_F(DeviceExecute, ArgumentsAndExitCodes) {
  script("/tmp/args", "for a in \"$@\"; do echo \"[$a]\"; done\n");
  script("/tmp/rc", "echo \"err $1\" >&2\nexit \"$1\"\n");
  VeskClient c = connect();
  auto execute = [&](const std::string& cmd, const std::string& args) {
    Args a{{"cmd", cmd}};
    if (!args.empty()) a.emplace_back("args", args);
    return c.ask(request("execute", a));
  };
  auto details = [&](const std::string& src) {
    return c.ask(request("execute_getDetails", {{"src", src}}));
  };

  EXPECT_EQ(execute("/bin/echo", "a  \"b c\""), data("a  \"b c\"\n"));
  EXPECT_EQ(details("RC"), data("0"));
  EXPECT_EQ(execute("/tmp/args", "x  \"y z\" "), data("[x]\n[]\n[\"y z\"]\n[]\n"));
  EXPECT_EQ(execute("/tmp/args", ""), data("[]\n"));

  // Output on stderr sets the lowest bit of the code.
  EXPECT_EQ(execute("/tmp/rc", "0"), fail("RC=1"));
  EXPECT_EQ(execute("/tmp/rc", "2"), fail("RC=3"));
  EXPECT_EQ(details("RC"), data("3"));
  EXPECT_EQ(details("STDERR"), data("err 2\n", "text/ascii"));

  // Error output of 4 GiB is not nothing: its size is taken as 64-bit.
  script("/tmp/huge_err", "truncate -s 4294967296 /tmp/kolta-execute-stderr.st\n");
  EXPECT_EQ(execute("/tmp/huge_err", "x"), fail("RC=1"));

  EXPECT_EQ(execute("/tmp/nosuch", ""), fail("RC=255"));
  EXPECT_EQ(details("stderr"),
            data("FATAL: process exited unexpected.! (No such file or directory)\n", "text/ascii"));
}

TEST_F(DeviceExecute, TimeoutEndsTheProgram) {
  VeskClient c = connect();
  const auto start = std::chrono::steady_clock::now();
  const std::string reply =
      c.ask(request("execute", {{"cmd", "/bin/sleep"}, {"args", "30"}, {"timeout", "1"}}), 15000);
  const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::smatch m;
  ASSERT_TRUE(std::regex_match(
      reply, m,
      std::regex("Reply: Fail\r\nReason: ([0-9]+): Execution failed \\(Terminated\\)\r\n\r\n")))
      << reply;
  EXPECT_GT(std::stol(m[1]), 0);
  EXPECT_GE(s, 2.0);
  EXPECT_LE(s, 6.0);
  EXPECT_EQ(c.ask(kHelp), kHelpReply);
}

TEST_F(DeviceSettings, RefusalsAndPortWrap) {
  auto setup = [](const std::string& port) {
    return data("LoadMethode=none\nlod_server_ip=127.0.0.0\nlod_server_port=" + port +
                "\nexec_type=rmd\n");
  };
  VeskClient c = connect();
  EXPECT_EQ(c.ask(request("server_setup", {{"LoadMethode", "LOD"}})),
            fail("unknown 'LoadMethode' = 'LOD'"));
  EXPECT_EQ(c.ask(request("server_setup", {{"lod_server_port", "0"}})),
            fail("portnumber out of range"));
  // The refused port has been taken all the same.
  EXPECT_EQ(c.ask(request("server_setup")), setup("0"));
  EXPECT_EQ(c.ask(request("server_setup", {{"lod_server_port", "-1"}})), setup("65535"));
  EXPECT_EQ(c.ask_and_close(request("server_reset")), kSuccess);
}

TEST_F(DevicePower, RebootAndShutdownReachOnlyTheStubs) {
  VeskClient c = connect();
  // "shutdown" is looked up by PATH, which must lead to the stub.
  EXPECT_EQ(c.ask(request("system", {{"cmd", "echo $PATH $(command -v shutdown)"}})),
            data("/usr/sbin:/usr/bin:/sbin:/bin /usr/sbin/shutdown\n"));
  EXPECT_EQ(c.ask(request("reboot")), fail("need mode parameter warm|cold"));
  EXPECT_EQ(c.ask(request("reboot", {{"mode", "Warm"}})), fail("unknown 'mode' = 'Warm'"));
  EXPECT_EQ(sb_.log(Sandbox::Log::power), "");

  EXPECT_EQ(c.ask_and_close(request("reboot", {{"mode", "warm"}})), kSuccess);
  EXPECT_NE(sb_.log(Sandbox::Log::power).find("init 6\n"), std::string::npos);
  EXPECT_EQ(connect().ask_and_close(request("reboot", {{"mode", "cold"}})), kSuccess);
  EXPECT_NE(sb_.log(Sandbox::Log::power).find("shutdown -r now\n"), std::string::npos);
  EXPECT_EQ(connect().ask_and_close(request("shutdown")), data("SH_TIME=15"));
  EXPECT_TRUE(sb_.wait_log("shutdown -h +0\n", 5000, Sandbox::Log::power))
      << sb_.log(Sandbox::Log::power);
}

TEST_F(DevicePower, ExitappEndsTheWholeGroup) {
  // Whatever it answers, the connection ends ("<still open> ..." otherwise).
  EXPECT_FALSE(connect().ask_and_close(request("exitapp")).starts_with("<"));
  const std::optional<int> status = sb_.wait_exit(5000);
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;

  // Nothing of its process group lives on.
  for (int i = 0; i < 100 && !sb_.group_members().empty(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(sb_.group_members(), std::vector<pid_t>{});
}

}  // namespace
}  // namespace kolta_test
