#include "protocol/header.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "lib/unique_fd.h"
#include "protocol/stream.h"

namespace {

struct split {
  int rc;
  std::string name;
  std::string value;
};

split split_line(const char* line) {
  char name[kNameSize] = "N";
  char value[kValueSize] = "V";
  int rc = SplitNVPair(line, name, value);
  return {rc, name, value};
}

// One end of a socket pair that already holds `bytes`; the writing end stays
// open unless `close_after`.
struct wire {
  unique_fd in, out;
  explicit wire(const std::string& bytes, bool close_after = false) {
    int sv[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    in.reset(sv[0]);
    out.reset(sv[1]);
    EXPECT_EQ(write(out.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    if (close_after) out.reset();
  }
};

}  // namespace

TEST(SplitNVPair, OnlyTheFirstColonBlankSeparates) {
  auto s = split_line("Request: test");
  EXPECT_EQ(s.rc, 0);
  EXPECT_EQ(s.name, "Request");
  EXPECT_EQ(s.value, "test");

  s = split_line("a: b:c");
  EXPECT_EQ(s.name, "a");
  EXPECT_EQ(s.value, "b:c");

  EXPECT_EQ(split_line("name:  value").value, " value");
  EXPECT_EQ(split_line("con tent-type: x").name, "content-type");
  EXPECT_EQ(split_line("x: tab\there").value, "tab\there");

  s = split_line("lonely");
  EXPECT_EQ(s.rc, 0);
  EXPECT_EQ(s.name, "lonely");
  EXPECT_EQ(s.value, "");

  s = split_line("a: b\r\n");  // only direct callers ever pass the line end
  EXPECT_EQ(s.rc, 0);
  EXPECT_EQ(s.value, "b");
}

TEST(SplitNVPair, EmptyLinesHighBytesAndBareColons) {
  auto s = split_line("");
  EXPECT_EQ(s.rc, 0);
  EXPECT_EQ(s.name, "N");  // untouched
  EXPECT_EQ(s.value, "V");

  s = split_line("ab\xc3\xa9z: v");
  EXPECT_EQ(s.rc, 1);
  EXPECT_EQ(s.name, "ab");
  EXPECT_EQ(s.value, "");

  s = split_line("a: b\xffz");
  EXPECT_EQ(s.rc, 1);
  EXPECT_EQ(s.name, "a");
  EXPECT_EQ(s.value, "b");

  EXPECT_EQ(split_line("a:b").rc, 1);
  EXPECT_EQ(split_line("a:").rc, 1);

  char name[kNameSize];
  char value[kValueSize];
  EXPECT_EQ(split_nv_line("a:b", name, value, nullptr), split_result::stalled);
  EXPECT_EQ(split_nv_line("a: \x80", name, value, nullptr), split_result::syntax_error);
  EXPECT_EQ(split_nv_line("a: b:c", name, value, nullptr), split_result::ok);
}

TEST(GetNVPair_Value, CaseInsensitiveLastMatchUpToTheFirstEmptyName) {
  nv_header h;
  DestroyHeader(&h);
  EXPECT_STREQ(GetNVPair_Value(&h, "x"), "");

  const char* pairs[][2] = {
      {"Request", "putFile"}, {"Content-Length", "5"}, {"x", "1"}, {"x", "2"}};
  for (int i = 0; i < 4; ++i) {
    std::strcpy(h.names[i], pairs[i][0]);
    std::strcpy(h.values[i], pairs[i][1]);
  }
  std::strcpy(h.names[5], "late");  // behind the empty name at 4
  std::strcpy(h.values[5], "hidden");

  EXPECT_STREQ(GetNVPair_Value(&h, "content-length"), "5");
  EXPECT_STREQ(GetNVPair_Value(&h, "X"), "2");
  ASSERT_NE(GetNVPair_Value(&h, "late"), nullptr);
  EXPECT_STREQ(GetNVPair_Value(&h, "late"), "");
  EXPECT_STREQ(GetNVPair_Value(&h, "absent"), "");

  DestroyHeader(&h);
  for (int i = 0; i < kHeaderPairs; ++i) {
    EXPECT_EQ(h.names[i][0], '\0');
    EXPECT_EQ(h.values[i][0], '\0');
  }
}

TEST(RvcHeader, ReadsOneHeaderAndLeavesTheRestInTheStream) {
  rx_stream_reset();
  nv_header h;
  DestroyHeader(&h);
  std::strcpy(h.names[3], "stale");
  {
    wire w("Request: test\r\n\r\n");
    EXPECT_EQ(RvcHeader(w.in.get(), &h), 1);
    EXPECT_STREQ(h.names[0], "Request");
    EXPECT_STREQ(h.values[0], "test");
    EXPECT_STREQ(h.names[3], "");  // cleared before reading
    EXPECT_EQ(h.excess, kExcessNone);
  }
  rx_stream_reset();
  {
    wire w("\nRequest: next\n\n");
    EXPECT_EQ(RvcHeader(w.in.get(), &h), 0);
    EXPECT_EQ(RvcHeader(w.in.get(), &h), 1);
    EXPECT_STREQ(h.values[0], "next");
  }
  rx_stream_reset();
  {
    wire w("Request: putFile\r\ncontent-length: 5\r\n\r\nHELLO");
    EXPECT_EQ(RvcHeader(w.in.get(), &h), 2);
    EXPECT_STREQ(GetNVPair_Value(&h, "Content-Length"), "5");
    char body[16] = {};
    EXPECT_EQ(rx_stream_read(w.in.get(), body, sizeof body), 5u);
    EXPECT_STREQ(body, "HELLO");
  }
  rx_stream_reset();
  {
    // A line of blanks is a pair with an empty name, which hides what follows.
    wire w("Request: t\r\n   \r\na: b\r\nk: v\xe9x\r\n\r\n");
    EXPECT_EQ(RvcHeader(w.in.get(), &h), 4);
    EXPECT_STREQ(GetNVPair_Value(&h, "a"), "");
    EXPECT_STREQ(h.names[3], "k");  // a syntax error still counts as a pair
    EXPECT_STREQ(h.values[3], "v");
  }
}

TEST(RvcHeader, EndsOnPeerCloseAndOnTheTimeLimit) {
  rx_stream_reset();
  nv_header h;
  {
    wire w("Request: t\r\nx: 1\r\npartial", true);
    EXPECT_EQ(RvcHeader(w.in.get(), &h), 2);
    EXPECT_STREQ(h.values[1], "1");
  }
  rx_stream_reset();
  {
    wire w("", true);
    EXPECT_EQ(RvcHeader(w.in.get(), &h), 0);
  }
  rx_stream_reset();
  {
    // A colon without a blank holds the connection until the time limit.
    wire w("Request: t\r\nbad:value\r\n\r\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_header(w.in.get(), &h, 20), 0);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("TIMEOUT !!"), std::string::npos);
  }
  rx_stream_reset();
  {
    wire w("Request: t\r\n");  // never completed
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_header(w.in.get(), &h, 20), 0);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("TIMEOUT !!"), std::string::npos);
  }
}

TEST(RvcHeader, RecordsExcessWithoutWritingPastFields) {
  nv_header h;
  auto read_one = [&h](const std::string& bytes) {
    rx_stream_reset();
    wire w(bytes + "\r\n");
    return RvcHeader(w.in.get(), &h);
  };

  EXPECT_EQ(read_one("Request: " + std::string(128, 'c') + "\r\n"), 1);
  EXPECT_EQ(h.excess, kExcessFirstValue | kExcessLimits);
  EXPECT_EQ(std::strlen(h.values[0]), static_cast<std::size_t>(kValueSize - 1));

  EXPECT_EQ(read_one("Request: " + std::string(127, 'c') + "\r\n"), 1);
  EXPECT_EQ(h.excess, kExcessNone);

  std::string lines = "Request: t\r\n";
  for (int i = 1; i <= 20; ++i) lines += "a" + std::to_string(i) + ": v\r\n";
  EXPECT_EQ(read_one(lines), kHeaderPairs);
  EXPECT_EQ(h.excess, kExcessLimits);
  EXPECT_STREQ(h.names[kHeaderPairs - 1], "a19");

  // Beyond the first line, a long value is only a limit.
  EXPECT_EQ(
      read_one("Request: t\r\n" + std::string(32, 'n') + ": " + std::string(200, 'v') + "\r\n"), 2);
  EXPECT_EQ(h.excess, kExcessLimits);
  EXPECT_EQ(std::strlen(h.names[1]), static_cast<std::size_t>(kNameSize - 1));
  EXPECT_EQ(std::strlen(h.values[1]), static_cast<std::size_t>(kValueSize - 1));

  // Blanks vanish from names, so only the line itself is too long; the colon
  // lies beyond the 511 characters kept.
  EXPECT_EQ(read_one("Request: t\r\na" + std::string(600, ' ') + ": b\r\n"), 2);
  EXPECT_EQ(h.excess, kExcessLimits);
  EXPECT_STREQ(h.names[1], "a");
  EXPECT_STREQ(h.values[1], "");
}

TEST(Chomp, RemovesEveryTrailingLineEnd) {
  char a[] = "abc\r\n\r\n", b[] = "a\rb", c[] = "\n";
  EXPECT_EQ(chomp(a), 3u);
  EXPECT_STREQ(a, "abc");
  EXPECT_EQ(chomp(b), 3u);
  EXPECT_STREQ(b, "a\rb");
  EXPECT_EQ(chomp(c), 0u);
}
