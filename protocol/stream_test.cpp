#include "protocol/stream.h"

#include <thread>

#include "tests/support/socket_pair.h"

using kolta_test::socket_pair;

TEST(RxStream, PushBackOnlyWithinTheLastReadAndOnlyOnce) {
  socket_pair p;
  EXPECT_EQ(rx_stream_unread(p.in.get(), 1), 0u);  // nothing read yet
  p.put("hello world");
  EXPECT_EQ(p.read(5), "hello");
  EXPECT_EQ(rx_stream_unread(p.in.get(), 6), 0u);
  EXPECT_EQ(rx_stream_unread(p.in.get(), 2), 2u);
  EXPECT_EQ(rx_stream_unread(p.in.get(), 1), 0u);
  EXPECT_EQ(p.read(64), "lo world");
  EXPECT_EQ(rx_stream_unread(p.in.get(), 8), 8u);
  EXPECT_TRUE(rx_stream_has_buffered());
  EXPECT_EQ(p.read(64), "lo world");
  EXPECT_FALSE(rx_stream_has_buffered());
}

TEST(RxStream, ReadsNeverSpanTwoSocketReads) {
  socket_pair p;
  p.put("abc");
  EXPECT_EQ(p.read(2), "ab");
  p.put("def");
  EXPECT_EQ(p.read(10), "c");
  EXPECT_EQ(p.read(10), "def");
  p.out.reset();
  EXPECT_EQ(p.read(10), "");
}

TEST(SendBlock, WritesTheWholeBlock) {
  socket_pair p;
  EXPECT_EQ(send_block(p.out.get(), "x", 0), 0u);
  char c;
  EXPECT_EQ(recv(p.in.get(), &c, 1, MSG_DONTWAIT), -1) << "nothing was written";

  // Far more than the socket buffer holds, so the writes are taken in parts.
  std::string block(4 << 20, '\0');
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 131 % 251);
  std::string received;
  std::thread reader([&] {
    char buf[65536];
    ssize_t n;
    while ((n = ::read(p.in.get(), buf, sizeof buf)) > 0) received.append(buf, n);
  });
  EXPECT_EQ(send_block(p.out.get(), block.data(), block.size()), block.size());
  p.out.reset();
  reader.join();
  EXPECT_TRUE(received == block);
}

TEST(FFileLength, SizeOrMinusOne) {
  EXPECT_EQ(ffilelength("/nonexistent/kolta/file"), -1);
  std::string path = testing::TempDir() + "kolta_len_XXXXXX";
  unique_fd fd(mkstemp(path.data()));
  ASSERT_TRUE(fd.ok());
  EXPECT_EQ(ffilelength(path.c_str()), 0);
  ASSERT_EQ(write(fd.get(), std::string(1234, 'z').data(), 1234), 1234);
  EXPECT_EQ(ffilelength(path.c_str()), 1234);
  unlink(path.c_str());
}
