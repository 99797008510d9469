#include "protocol/body.h"

#include <cstdio>
#include <cstring>
#include <vector>

#include "tests/support/socket_pair.h"

namespace {

struct writer_call {
  int op;
  std::string data;
  bool operator==(const writer_call&) const = default;
};
using calls = std::vector<writer_call>;

calls g_calls;
int g_failing_call = -1;  // index of the call that reports "disk full"

int recording_writer(int op, const char* buf, int len, char* error_text, int error_size) {
  int index = static_cast<int>(g_calls.size());
  g_calls.push_back({op, std::string(buf, len)});
  if (index != g_failing_call) return 0;
  std::snprintf(error_text, error_size, "disk full");
  return 1;
}

// A connection that has sent a putFile header announcing `length` and then
// `bytes`: the header is read from it and the body then received with the
// recording writer.
struct session : kolta_test::socket_pair {
  vesk_request request{};
  resp_obj resp{};

  session(std::size_t length, const std::string& bytes, bool close_after = false)
      : socket_pair("Request: putFile\r\ncontent-length: " + std::to_string(length) +
                        "\r\n\r\n" + bytes,
                    close_after) {
    g_calls.clear();
    g_failing_call = -1;
    resp.type = kReplySuccess;
  }

  bool receive() {
    EXPECT_GT(RvcHeader(in.get(), &request.header), 0);
    return RcvData(in.get(), recording_writer, &request, &resp);
  }
};

}  // namespace

TEST(RcvData, WriterCallsReplyAndWhatIsLeft) {
  const std::string b(513, 'b'), d(600, 'd');
  struct {
    const char* what;
    std::size_t length;
    std::string bytes;
    bool close_after;
    int failing_call, type_before;
    const char* text_before;
    bool ok;
    calls expected;
    int type;
    const char* text;
    std::string rest;  // left in the stream for the next reader
  } cases[] = {
      {"empty body", 0, "Request: next\r\n\r\n", false, -1, kReplySuccess, "", true,
       {{kWriteEnd, ""}}, kReplySuccess, "", "Request: next\r\n\r\n"},
      {"one full block", 513, b, false, -1, kReplySuccess, "", true,
       {{kWriteBlock, b}, {kWriteEnd, ""}}, kReplySuccess, "", ""},
      {"block write fails, the end still called", 3, "abc", false, 0, kReplySuccess, "x", true,
       {{kWriteBlock, "abc"}, {kWriteEnd, ""}}, kReplyFail, "x data write fn: (disk full)", ""},
      {"only the end fails", 3, "abc", false, 1, kReplySuccess, "", true,
       {{kWriteBlock, "abc"}, {kWriteEnd, ""}}, kReplyFail, " data write fn: (disk full)", ""},
      {"handler failed already: only drained", 600, d, false, -1, kReplyFail, "no room", true,
       {{kWriteDiscard, d.substr(0, 513)}, {kWriteDiscard, d.substr(513)}, {kWriteDiscard, ""}},
       kReplyFail, "no room", ""},
      {"peer closes before the end", 100, "0123456789", true, -1, kReplySuccess, "", false,
       {{kWriteBlock, "0123456789"}, {kWriteDiscard, ""}}, kReplyFail, "", ""},
      // The running count after an over-read is (count + read) + (count -
      // length): while that stays below the length, the pushed-back bytes are
      // handed on too.
      {"over-read counted twice", 10, "0123456789ABCDE", false, -1, kReplySuccess, "", true,
       {{kWriteBlock, "0123456789"}, {kWriteBlock, "ABCDE"}, {kWriteEnd, ""}}, kReplySuccess, "",
       ""},
      {"excess alone reaches the length", 4, "abcdNEXT12", false, -1, kReplySuccess, "", true,
       {{kWriteBlock, "abcd"}, {kWriteEnd, ""}}, kReplySuccess, "", "NEXT12"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    session s(c.length, c.bytes, c.close_after);
    g_failing_call = c.failing_call;
    s.resp.type = c.type_before;
    std::strcpy(s.resp.text, c.text_before);
    EXPECT_EQ(s.receive(), c.ok);
    EXPECT_EQ(g_calls, c.expected);
    EXPECT_EQ(s.resp.type, c.type);
    EXPECT_STREQ(s.resp.text, c.text);
    EXPECT_EQ(rx_stream_has_buffered() ? s.read(64) : "", c.rest);
  }
}

TEST(RcvData, HandsTheBodyOnInBlocksOf513AtMost) {
  std::string body(5000, '\0');
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 7 % 251);
  session s(body.size(), body);
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

TEST(RcvData, LogsTheSetupAndOneProgressLinePerBlock) {
  session s(600, std::string(600, 'p'));
  testing::internal::CaptureStdout();
  EXPECT_TRUE(s.receive());
  std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "RcvData::Data Setup:\nContent-Length = 600\n\n"
            "513 / 600 (513)        \r600 / 600 (87)        \r\n\n");
}
