// The request path over real TCP: header reading, command lookup, reply
// framing and connection handling of a sandboxed koltad.
#include <netinet/in.h>
#include <sys/socket.h>

#include "tests/support/wire.h"

namespace kolta_test {
namespace {

const std::string kHelp = request("help");
const std::string kHelpReply = data("KOLTA VESK help");
const std::string kLimitsReply = fail("Error: request header exceeds limits !");

int local_port(const VeskClient& c) {
  sockaddr_in a{};
  socklen_t len = sizeof a;
  getsockname(c.fd(), reinterpret_cast<sockaddr*>(&a), &len);
  return ntohs(a.sin_port);
}

using RequestPath = DaemonTest;

TEST_F(RequestPath, HelpKeepsTheConnectionAndIsLogged) {
  VeskClient c = connect();
  EXPECT_EQ(c.ask(kHelp), kHelpReply);
  EXPECT_EQ(c.ask("Request: HeLp\r\n\r\n"), kHelpReply);
  EXPECT_TRUE(c.is_open());

  std::vector<pid_t> workers = sb_.workers();
  ASSERT_EQ(workers.size(), 1u);
  const std::string pid = "pid=" + std::to_string(workers[0]);
  for (const char* request : {"[help]", "[HeLp]"}) {
    EXPECT_TRUE(sb_.wait_log("KOLTA " + pid + " Incoming Request: " + request + "\n")) << sb_.log();
  }
  EXPECT_TRUE(sb_.wait_log("VESK_S: " + pid + " REPLY DATA: Size=15, Content-Type=text/plain\n"));
}

TEST_F(RequestPath, UnknownCommandsAndNameLimits) {
  // 109 characters: the longest name whose reason still fits. One more, and
  // the size of the command field: no reply at all.
  const std::string name109(109, 'q');
  const std::pair<std::string, std::string> cases[] = {
      {"nosuch", fail("`nosuch' illegal command")},
      {name109, fail("`" + name109 + "' illegal command")},
      {std::string(110, 'q'), ""},
      {std::string(128, 'q'), ""},
  };
  for (const auto& [name, reply] : cases) EXPECT_EQ(connect().ask_and_close(request(name)), reply);
}

TEST_F(RequestPath, SegmentationDoesNotMatter) {
  VeskClient split = connect();
  ASSERT_TRUE(split.send_split(kHelp, 3));
  EXPECT_EQ(split.read_reply(), kHelpReply);

  VeskClient joined = connect();
  EXPECT_EQ(joined.ask(kHelp + kHelp), kHelpReply);
  EXPECT_EQ(joined.read_reply(), kHelpReply);
}

TEST_F(RequestPath, HeaderLimits) {
  std::string twenty = "Request: help\r\n";
  for (int i = 1; i < 20; ++i) twenty += "arg" + std::to_string(i) + ": v\r\n";
  const std::string name31(31, 'n'), value127(127, 'v');

  // At the limits: answered.
  VeskClient c = connect();
  EXPECT_EQ(c.ask(twenty + "\r\n" + request("help", {{name31, value127}})), kHelpReply);
  EXPECT_EQ(c.read_reply(), kHelpReply);

  // One past them: refused, and the connection ends.
  for (const std::string& past : {twenty + "arg20: v\r\n\r\n", request("help", {{name31 + "n", "v"}}),
                                  request("help", {{"x", value127 + "v"}})}) {
    EXPECT_EQ(connect().ask_and_close(past), kLimitsReply) << past.substr(0, 40);
  }
}

TEST_F(RequestPath, StalledLineHoldsOnlyItsOwnConnection) {
  VeskClient stalled = connect();
  EXPECT_EQ(stalled.ask("Request: help\r\nabc:def\r\n\r\n", 1000), "");
  EXPECT_TRUE(stalled.is_open());

  std::vector<pid_t> workers = sb_.workers();
  ASSERT_EQ(workers.size(), 1u);
  double cpu = cpu_seconds(workers[0]);
  EXPECT_GE(cpu, 0.0);
  EXPECT_LT(cpu, 0.1) << "a stalled worker must wait, not spin";

  EXPECT_EQ(connect().ask(kHelp), kHelpReply);
}

TEST_F(RequestPath, HangupsDoNotDisturbLaterConnections) {
  VeskClient silent = connect(), partial = connect();
  const int silent_port = local_port(silent), partial_port = local_port(partial);
  silent.close();
  ASSERT_TRUE(partial.send("Request: help\r\nArg"));
  partial.close();

  VeskClient later = connect();
  EXPECT_EQ(later.ask(kHelp), kHelpReply);

  const std::string from =
      "VESK_S: pid=" + std::to_string(sb_.pid()) + " Connection from (127.0.0.1:";
  for (int port : {silent_port, partial_port, local_port(later)}) {
    EXPECT_TRUE(sb_.wait_log(from + std::to_string(port) + ")\n")) << sb_.log();
  }
}

TEST(RequestPathConfig, NoPortLineStillListens) {
  KOLTA_REQUIRE_SANDBOX();
  Sandbox sb;
  EXPECT_TRUE(sb.start({.config = "# no port here\n"})) << sb.error();
}

}  // namespace
}  // namespace kolta_test
