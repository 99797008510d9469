#include "protocol/stream.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <thread>

#include "lib/unique_fd.h"

namespace {

struct socket_pair {
  unique_fd a, b;
  socket_pair() {
    int sv[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    a.reset(sv[0]);
    b.reset(sv[1]);
  }
  void put(const std::string& bytes) {
    EXPECT_EQ(write(b.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
};

std::string read_up_to(int sock, unsigned max) {
  std::string out(max, '\0');
  out.resize(rx_stream_read(sock, out.data(), max));
  return out;
}

}  // namespace

TEST(RxStream, PushBackOnlyWithinTheLastReadAndOnlyOnce) {
  rx_stream_reset();
  socket_pair p;
  EXPECT_EQ(rx_stream_unread(p.a.get(), 1), 0u);  // nothing read yet
  p.put("hello world");
  EXPECT_EQ(read_up_to(p.a.get(), 5), "hello");
  EXPECT_EQ(rx_stream_unread(p.a.get(), 6), 0u);
  EXPECT_EQ(rx_stream_unread(p.a.get(), 2), 2u);
  EXPECT_EQ(rx_stream_unread(p.a.get(), 1), 0u);
  EXPECT_EQ(read_up_to(p.a.get(), 64), "lo world");
  EXPECT_EQ(rx_stream_unread(p.a.get(), 8), 8u);
  EXPECT_TRUE(rx_stream_has_buffered());
  EXPECT_EQ(read_up_to(p.a.get(), 64), "lo world");
  EXPECT_FALSE(rx_stream_has_buffered());
}

TEST(RxStream, ReadsNeverSpanTwoSocketReads) {
  rx_stream_reset();
  socket_pair p;
  p.put("abc");
  EXPECT_EQ(read_up_to(p.a.get(), 2), "ab");
  p.put("def");
  EXPECT_EQ(read_up_to(p.a.get(), 10), "c");
  EXPECT_EQ(read_up_to(p.a.get(), 10), "def");
  p.b.reset();
  EXPECT_EQ(read_up_to(p.a.get(), 10), "");
}

TEST(SendBlock, WritesTheWholeBlock) {
  socket_pair p;
  EXPECT_EQ(send_block(p.b.get(), "x", 0), 0u);
  ASSERT_EQ(fcntl(p.a.get(), F_SETFL, O_NONBLOCK), 0);
  char c;
  EXPECT_EQ(read(p.a.get(), &c, 1), -1);  // nothing was written
  EXPECT_EQ(errno, EAGAIN);
  ASSERT_EQ(fcntl(p.a.get(), F_SETFL, 0), 0);

  // Far more than the socket buffer holds, so the writes are taken in parts.
  std::string block(4 << 20, '\0');
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 131 % 251);
  std::string received;
  std::thread reader([&] {
    char buf[65536];
    ssize_t n;
    while ((n = read(p.a.get(), buf, sizeof buf)) > 0) received.append(buf, n);
  });
  EXPECT_EQ(send_block(p.b.get(), block.data(), block.size()), block.size());
  p.b.reset();
  reader.join();
  EXPECT_TRUE(received == block);
}

TEST(FFileLength, SizeOrMinusOne) {
  EXPECT_EQ(ffilelength("/nonexistent/kolta/file"), -1);
  std::string path = testing::TempDir() + "kolta_len_XXXXXX";
  unique_fd fd(mkstemp(path.data()));
  ASSERT_TRUE(fd.ok());
  EXPECT_EQ(ffilelength(path.c_str()), 0);
  std::string data(1234, 'z');
  ASSERT_EQ(write(fd.get(), data.data(), data.size()), 1234);
  EXPECT_EQ(ffilelength(path.c_str()), 1234);
  unlink(path.c_str());
}
