// Clients that misbehave and a file system that fills up: each fault ends at
// most its own request or connection, and the daemon goes on answering.
#include <sys/socket.h>

#include <random>

#include "lib/md5.h"
#include "tests/support/namespaces.h"
#include "tests/support/wire.h"

namespace kolta_test {
namespace {

std::string put_header(const std::string& file, const std::string& body, std::size_t length) {
  return request("putFile", {{"file", file}, {"md5_sig", md5_text(body)},
                             {"content-length", std::to_string(length)}});
}

class ConnectionFaults : public DaemonTest {
 protected:
  void expect_test_answered() {
    EXPECT_EQ(connect().ask_and_close(request("test")), kSuccess) << "the daemon must still answer";
  }
  // Waits until no worker is left.
  void expect_workers_gone() {
    for (int i = 0; i < 300 && !sb_.workers().empty(); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(sb_.workers(), std::vector<pid_t>{});
  }
};

TEST_F(ConnectionFaults, DisconnectsInHeaderBodyAndReply) {
  const std::string body(100000, 'b');
  {
    VeskClient in_header = connect();
    ASSERT_TRUE(in_header.send("Request: getFile\r\nfi"));
  }
  {
    VeskClient in_body = connect();
    ASSERT_TRUE(in_body.send(put_header("/tmp/partial", body, body.size()) + body.substr(0, 1000)));
  }
  write_file("/tmp/big", std::string(8 << 20, 'g'));
  {
    VeskClient in_reply = connect();
    ASSERT_TRUE(in_reply.send(request("getFile", {{"file", "/tmp/big"}})));
    char some[100];
    ASSERT_GT(::recv(in_reply.fd(), some, sizeof some, 0), 0);
  }
  expect_workers_gone();
  EXPECT_FALSE(exists("/tmp/partial")) << "an incomplete upload is removed";
  expect_test_answered();
}

TEST_F(ConnectionFaults, BodyShorterOrLongerThanItsLength) {
  // Shorter, and the client stops sending: the connection ends without a reply.
  const std::string body = "0123456789";
  VeskClient shorter = connect();
  ASSERT_TRUE(shorter.send(put_header("/tmp/short", body, 20) + body));
  ::shutdown(shorter.fd(), SHUT_WR);
  EXPECT_EQ(shorter.ask_and_close(""), "");
  EXPECT_FALSE(exists("/tmp/short"));

  // Longer: what follows the announced length is the next request.
  VeskClient longer = connect();
  EXPECT_EQ(longer.ask(put_header("/tmp/long", body, body.size()) + body + request("nosuch")),
            kSuccess);
  EXPECT_EQ(longer.read_reply(), fail("`nosuch' illegal command"));
  EXPECT_EQ(read_file(sb_.path("/tmp/long")), body);
  expect_test_answered();
}

TEST_F(ConnectionFaults, FullTmp) {
  // A small file system over the daemon's /tmp, filled up first.
  ASSERT_EQ(in_mount_namespace(sb_.pid(), "mount -t tmpfs -o size=64k tmpfs /tmp"), 0);
  VeskClient c = connect();
  const std::string fill(256 * 1024, 'f');
  const std::string reply = c.ask(put_header("/tmp/fill", fill, fill.size()) + fill);
  EXPECT_NE(reply.find("write error: No space left on device"), std::string::npos) << reply;
  EXPECT_EQ(c.ask(put_header("/tmp/fill", "x", 1) + "x"), kSuccess) << "a small file still fits";
  std::string big(60 * 1024, 'F');
  c.ask(put_header("/tmp/fill2", big, big.size()) + big);

  // Each is answered in one of its forms, and nothing is left behind half-done.
  for (const std::string& req :
       {request("system", {{"cmd", "head -c 200000 /dev/zero"}}),
        request("execute", {{"cmd", "/usr/bin/head"}, {"args", "-c 200000 /dev/zero"}})}) {
    const std::string r = c.ask(req, 10000);
    EXPECT_TRUE(r.starts_with("Reply: ")) << req << r;
  }
  const int pid = start_process(c, "/usr/bin/head", "-c 200000 /dev/zero");
  ASSERT_GT(pid, 0);
  EXPECT_TRUE(final_state(c, pid).starts_with("Reply: Data\r\n"));
  EXPECT_TRUE(c.is_open());
  expect_test_answered();
}

}  // namespace
}  // namespace kolta_test
