// The request path over real TCP: header reading, command lookup, reply
// framing and connection handling of a sandboxed koltad.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "tests/support/sandbox.h"
#include "tests/support/vesk_client.h"

namespace kolta_test {
namespace {

const std::string kHelp = "Request: help\r\n\r\n";
const std::string kHelpHeader =
    "Reply: Data\r\nContent-length: 15\r\nContent-Type: text/plain\r\n\r\n";
const std::string kLimitsReply =
    "Reply: Fail\r\nReason: Error: request header exceeds limits !\r\n\r\n";

int local_port(const VeskClient& c) {
  sockaddr_in a{};
  socklen_t len = sizeof a;
  getsockname(c.fd(), reinterpret_cast<sockaddr*>(&a), &len);
  return ntohs(a.sin_port);
}

class RequestPath : public ::testing::Test {
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

  // Sends `request` on a fresh connection, expects exactly `reply` (maybe
  // nothing) and then the close.
  void expect_reply_and_close(const std::string& request, const std::string& reply) {
    VeskClient c = connect();
    ASSERT_TRUE(c.send(request));
    bool closed = false;
    EXPECT_EQ(c.read_until_close(3000, &closed), reply) << request.substr(0, 40);
    EXPECT_TRUE(closed) << request.substr(0, 40);
  }

  void expect_help(VeskClient& c) {
    std::string reply = c.read_reply();
    EXPECT_TRUE(reply.starts_with(kHelpHeader)) << reply;
    EXPECT_EQ(reply.size(), kHelpHeader.size() + 15);
  }

  Sandbox sb_;
};

TEST_F(RequestPath, HelpKeepsTheConnectionAndIsLogged) {
  VeskClient c = connect();
  ASSERT_TRUE(c.send(kHelp));
  expect_help(c);
  ASSERT_TRUE(c.send("Request: HeLp\r\n\r\n"));
  expect_help(c);
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
  expect_reply_and_close("Request: nosuch\r\n\r\n",
                         "Reply: Fail\r\nReason: `nosuch' illegal command\r\n\r\n");
  // 109 characters: the longest name whose reason still fits.
  const std::string name109(109, 'q');
  expect_reply_and_close("Request: " + name109 + "\r\n\r\n",
                         "Reply: Fail\r\nReason: `" + name109 + "' illegal command\r\n\r\n");
  // One more, and the size of the command field: no reply at all.
  expect_reply_and_close("Request: " + std::string(110, 'q') + "\r\n\r\n", "");
  expect_reply_and_close("Request: " + std::string(128, 'q') + "\r\n\r\n", "");
}

TEST_F(RequestPath, SegmentationDoesNotMatter) {
  VeskClient split = connect();
  ASSERT_TRUE(split.send_split(kHelp, 3));
  expect_help(split);

  VeskClient joined = connect();
  ASSERT_TRUE(joined.send(kHelp + kHelp));
  expect_help(joined);
  expect_help(joined);
}

TEST_F(RequestPath, HeaderLimits) {
  std::string twenty = "Request: help\r\n";
  for (int i = 1; i < 20; ++i) twenty += "arg" + std::to_string(i) + ": v\r\n";
  const std::string name31(31, 'n'), value127(127, 'v');

  // At the limits: answered.
  VeskClient c = connect();
  ASSERT_TRUE(
      c.send(twenty + "\r\n" + "Request: help\r\n" + name31 + ": " + value127 + "\r\n\r\n"));
  expect_help(c);
  expect_help(c);

  // One past them: refused, and the connection ends.
  expect_reply_and_close(twenty + "arg20: v\r\n\r\n", kLimitsReply);
  expect_reply_and_close("Request: help\r\n" + name31 + "n: v\r\n\r\n", kLimitsReply);
  expect_reply_and_close("Request: help\r\nx: " + value127 + "v\r\n\r\n", kLimitsReply);
}

TEST_F(RequestPath, StalledLineHoldsOnlyItsOwnConnection) {
  VeskClient stalled = connect();
  ASSERT_TRUE(stalled.send("Request: help\r\nabc:def\r\n\r\n"));
  EXPECT_EQ(stalled.read_reply(1000), "");
  EXPECT_TRUE(stalled.is_open());

  std::vector<pid_t> workers = sb_.workers();
  ASSERT_EQ(workers.size(), 1u);
  double cpu = cpu_seconds(workers[0]);
  EXPECT_GE(cpu, 0.0);
  EXPECT_LT(cpu, 0.1) << "a stalled worker must wait, not spin";

  VeskClient other = connect();
  ASSERT_TRUE(other.send(kHelp));
  expect_help(other);
}

TEST_F(RequestPath, HangupsDoNotDisturbLaterConnections) {
  VeskClient silent = connect(), partial = connect();
  const int silent_port = local_port(silent), partial_port = local_port(partial);
  silent.close();
  ASSERT_TRUE(partial.send("Request: help\r\nArg"));
  partial.close();

  VeskClient later = connect();
  ASSERT_TRUE(later.send(kHelp));
  expect_help(later);

  const std::string from =
      "VESK_S: pid=" + std::to_string(sb_.pid()) + " Connection from (127.0.0.1:";
  for (int port : {silent_port, partial_port, local_port(later)}) {
    EXPECT_TRUE(sb_.wait_log(from + std::to_string(port) + ")\n")) << sb_.log();
  }
}

TEST(RequestPathConfig, NoPortLineStillListens) {
  KOLTA_REQUIRE_SANDBOX();
  Sandbox sb;
  SandboxOptions options;
  options.config = "# no port here\n";
  EXPECT_TRUE(sb.start(options)) << sb.error();
}

}  // namespace
}  // namespace kolta_test
