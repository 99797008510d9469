#include "protocol/body.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "lib/unique_fd.h"
#include "protocol/stream.h"

namespace {

struct writer_call {
  int op;
  std::string data;
  bool operator==(const writer_call&) const = default;
};

std::vector<writer_call> g_calls;
int g_failing_call = -1;  // index of the call that reports "disk full"

int recording_writer(int op, const char* buf, int len, char* error_text, int error_size) {
  int index = static_cast<int>(g_calls.size());
  g_calls.push_back({op, std::string(buf, len)});
  if (index != g_failing_call) return 0;
  std::snprintf(error_text, error_size, "disk full");
  return 1;
}

std::string put_header(std::size_t length) {
  return "Request: putFile\r\ncontent-length: " + std::to_string(length) + "\r\n\r\n";
}

// A connection that has already sent `bytes`: the header is read from it and
// the body then received with the recording writer.
struct session {
  unique_fd in, out;
  vesk_request request{};
  resp_obj resp{};

  explicit session(const std::string& bytes, bool close_after = false) {
    rx_stream_reset();
    g_calls.clear();
    g_failing_call = -1;
    resp.type = kReplySuccess;
    int sv[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    in.reset(sv[0]);
    out.reset(sv[1]);
    EXPECT_EQ(write(out.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    if (close_after) out.reset();
  }

  bool receive() {
    EXPECT_GT(RvcHeader(in.get(), &request.header), 0);
    return RcvData(in.get(), recording_writer, &request, &resp);
  }
};

}  // namespace

TEST(RcvData, EmptyBodyLeavesTheFollowingBytesForTheNextHeader) {
  session s(put_header(0) + "Request: next\r\n\r\n");
  EXPECT_TRUE(s.receive());
  EXPECT_EQ(g_calls, (std::vector<writer_call>{{kWriteEnd, ""}}));
  EXPECT_EQ(s.resp.type, kReplySuccess);
  EXPECT_EQ(RvcHeader(s.in.get(), &s.request.header), 1);
  EXPECT_STREQ(s.request.header.values[0], "next");
}

TEST(RcvData, HandsTheBodyOnInBlocksOf513AtMost) {
  std::string body(513, 'b');
  {
    session s(put_header(body.size()) + body);
    EXPECT_TRUE(s.receive());
    EXPECT_EQ(g_calls, (std::vector<writer_call>{{kWriteBlock, body}, {kWriteEnd, ""}}));
  }

  body.resize(5000);
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 7 % 251);
  session s(put_header(body.size()) + body);
  EXPECT_TRUE(s.receive());
  ASSERT_GE(g_calls.size(), 2u);
  EXPECT_EQ(g_calls.back(), (writer_call{kWriteEnd, ""}));
  std::string joined;
  for (std::size_t i = 0; i + 1 < g_calls.size(); ++i) {
    EXPECT_EQ(g_calls[i].op, kWriteBlock);
    EXPECT_LE(g_calls[i].data.size(), kBodyBlockSize);
    EXPECT_FALSE(g_calls[i].data.empty());
    joined += g_calls[i].data;
  }
  EXPECT_TRUE(joined == body);
  EXPECT_EQ(s.resp.type, kReplySuccess);
}

TEST(RcvData, WriterFailureTurnsTheReplyIntoFail) {
  {
    session s(put_header(3) + "abc");
    g_failing_call = 0;  // the block fails, the final call succeeds
    std::strcpy(s.resp.text, "x");
    EXPECT_TRUE(s.receive());
    EXPECT_EQ(g_calls, (std::vector<writer_call>{{kWriteBlock, "abc"}, {kWriteEnd, ""}}));
    EXPECT_EQ(s.resp.type, kReplyFail);
    EXPECT_STREQ(s.resp.text, "x data write fn: (disk full)");
  }
  {
    session s(put_header(3) + "abc");
    g_failing_call = 1;  // only the final call fails
    EXPECT_TRUE(s.receive());
    EXPECT_EQ(s.resp.type, kReplyFail);
    EXPECT_STREQ(s.resp.text, " data write fn: (disk full)");
  }
  {
    // The handler has failed already: everything is only drained.
    std::string body(600, 'd');
    session s(put_header(body.size()) + body);
    s.resp.type = kReplyFail;
    std::strcpy(s.resp.text, "no room");
    EXPECT_TRUE(s.receive());
    EXPECT_EQ(g_calls, (std::vector<writer_call>{{kWriteDiscard, body.substr(0, 513)},
                                                 {kWriteDiscard, body.substr(513)},
                                                 {kWriteDiscard, ""}}));
    EXPECT_STREQ(s.resp.text, "no room");
  }
}

TEST(RcvData, PeerClosingBeforeTheEndDiscards) {
  session s(put_header(100) + "0123456789", true);
  EXPECT_FALSE(s.receive());
  EXPECT_EQ(g_calls, (std::vector<writer_call>{{kWriteBlock, "0123456789"}, {kWriteDiscard, ""}}));
  EXPECT_EQ(s.resp.type, kReplyFail);
}

// The running count after an over-read is (count + read) + (count - length):
// while that stays below the length, the pushed-back bytes are handed on too.
TEST(RcvData, OverReadCountsTheExcessTwice) {
  {
    session s(put_header(10) + "0123456789ABCDE");
    EXPECT_TRUE(s.receive());
    EXPECT_EQ(g_calls, (std::vector<writer_call>{
                           {kWriteBlock, "0123456789"}, {kWriteBlock, "ABCDE"}, {kWriteEnd, ""}}));
  }
  session s(put_header(4) + "abcdNEXT12");  // the excess alone reaches the length
  EXPECT_TRUE(s.receive());
  EXPECT_EQ(g_calls, (std::vector<writer_call>{{kWriteBlock, "abcd"}, {kWriteEnd, ""}}));
  char rest[16] = {};
  EXPECT_EQ(rx_stream_read(s.in.get(), rest, sizeof rest), 6u);
  EXPECT_STREQ(rest, "NEXT12");
}
