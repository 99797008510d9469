// Replies that must be exact whatever the file: what getFile refuses, files
// without a reported size, sizes of 2 GiB and more, and a client that resets
// the connection in the middle of a long reply.
#include <sys/socket.h>
#include <sys/stat.h>

#include <cstdlib>

#include "tests/support/wire.h"

namespace kolta_test {
namespace {

using namespace std::chrono_literals;

constexpr long long kThreeGiB = 3LL << 30;

// Reads up to the end of a reply header.
std::string read_header(const VeskClient& c) {
  std::string h;
  char ch;
  while (h.find("\r\n\r\n") == std::string::npos && ::recv(c.fd(), &ch, 1, 0) == 1) h += ch;
  return h;
}

// Ends the connection with a reset, as a client that gives up does.
void reset(VeskClient& c) {
  linger hard{1, 0};
  ::setsockopt(c.fd(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  c.close();
}

using TransferLimits = DaemonTest;

TEST_F(TransferLimits, GetFileSendsOnlyRegularFilesAndNeverBlocks) {
  ASSERT_EQ(::mkfifo(sb_.path("/tmp/fifo").c_str(), 0644), 0);
  VeskClient c = connect();
  for (const char* file : {"/tmp/fifo", "/tmp", "/dev/null"}) {
    EXPECT_EQ(c.ask(request("getFile", {{"file", file}}), 3000), fail("File open error.")) << file;
  }
  // A file that reports no size is sent whole, with its true size.
  EXPECT_EQ(c.ask(request("getFile", {{"file", "/proc/version"}})),
            data(read_file("/proc/version"), "file/binary"));
}

TEST_F(TransferLimits, SizesOfThreeGiB) {
  ASSERT_EQ(::truncate((write_file("/tmp/huge", ""), sb_.path("/tmp/huge")).c_str(), kThreeGiB), 0);
  VeskClient c = connect();
  ASSERT_TRUE(c.send(request("getFile", {{"file", "/tmp/huge"}})));
  EXPECT_EQ(read_header(c), "Reply: Data\r\nContent-length: 3221225472\r\nContent-Type: file/binary\r\n\r\n");
  reset(c);

  script("/tmp/huge.sh", "truncate -s 3221225472 /tmp/kolta-bkprocess-stdout.$$\n");
  VeskClient p = connect();
  const int pid = start_process(p, "/tmp/huge.sh", "x");
  ASSERT_GT(pid, 0);
  ASSERT_EQ(final_state(p, pid), state("PASSED", 0, "/tmp/huge.sh", "x"));
  ASSERT_TRUE(p.send(request("process_getDetails", {{"pid", std::to_string(pid)}, {"rp", "0"}, {"src", "stdout"}})));
  EXPECT_EQ(read_header(p), "Reply: Data\r\nContent-length: 3221225472\r\nContent-Type: text/plain\r\n\r\n");
  reset(p);
  EXPECT_EQ(connect().ask_and_close(request("test")), kSuccess);
}

TEST_F(TransferLimits, ResetDuringAReplyIsABrokenConnection) {
  ASSERT_EQ(::truncate((write_file("/tmp/big", ""), sb_.path("/tmp/big")).c_str(), 64 << 20), 0);
  VeskClient c = connect();
  ASSERT_TRUE(c.send(request("getFile", {{"file", "/tmp/big"}})));
  ASSERT_FALSE(read_header(c).empty());
  std::vector<pid_t> workers = sb_.workers();
  ASSERT_EQ(workers.size(), 1u);
  reset(c);

  const std::string pid = std::to_string(workers[0]);
  const std::string bang(61, '!');
  EXPECT_TRUE(sb_.wait_log(bang + "\nVESK_S: pid=" + pid + " NETWORK CONNECTION BROKEN !!!\n" +
                           "        ->check VESK-Timeout settings at client side !!!\n" +
                           "        The clients should't exit during communication.\n" +
                           "        I've a timeout parameter for this !\n" + bang + "\n"))
      << sb_.log().substr(sb_.log().size() > 2000 ? sb_.log().size() - 2000 : 0);
  EXPECT_TRUE(sb_.wait_log("VESK_S: pid=" + pid + " has exited normally with state=1.\n"));
  EXPECT_EQ(connect().ask_and_close(request("test")), kSuccess);
}

}  // namespace
}  // namespace kolta_test
