#include "protocol/header.h"

#include <cstring>

#include "tests/support/socket_pair.h"

using kolta_test::socket_pair;

TEST(SplitNVPair, OnlyTheFirstColonBlankSeparates) {
  struct {
    const char* line;
    split_result result;
    const char *name, *value;  // null name: neither is looked at
  } cases[] = {
      {"Request: test", split_result::ok, "Request", "test"},
      {"a: b:c", split_result::ok, "a", "b:c"},
      {"name:  value", split_result::ok, "name", " value"},
      {"con tent-type: x", split_result::ok, "content-type", "x"},
      {"x: tab\there", split_result::ok, "x", "tab\there"},
      {"lonely", split_result::ok, "lonely", ""},
      {"a: b\r\n", split_result::ok, "a", "b"},  // only direct callers pass the line end
      {"ab\xc3\xa9z: v", split_result::syntax_error, "ab", ""},
      {"a: b\xffz", split_result::syntax_error, "a", "b"},
      {"a: \x80", split_result::syntax_error, "a", ""},
      {"a:b", split_result::stalled, nullptr, nullptr},
      {"a:", split_result::stalled, nullptr, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    char name[kNameSize] = "N", value[kValueSize] = "V";
    EXPECT_EQ(SplitNVPair(c.line, name, value), c.result == split_result::ok ? 0 : 1);
    if (c.name != nullptr) {
      EXPECT_STREQ(name, c.name);
      EXPECT_STREQ(value, c.value);
    }
    EXPECT_EQ(split_nv_line(c.line, name, value, nullptr), c.result);
  }
  char name[kNameSize] = "N", value[kValueSize] = "V";
  EXPECT_EQ(SplitNVPair("", name, value), 0);
  EXPECT_STREQ(name, "N");  // an empty line touches nothing
  EXPECT_STREQ(value, "V");
}

TEST(GetNVPair_Value, CaseInsensitiveLastMatchUpToTheFirstEmptyName) {
  nv_header h;
  DestroyHeader(&h);
  EXPECT_STREQ(GetNVPair_Value(&h, "x"), "");
  const char* pairs[][2] = {{"Request", "putFile"}, {"Content-Length", "5"}, {"x", "1"},
                            {"x", "2"},             {"", ""},                 {"late", "hidden"}};
  for (int i = 0; i < 6; ++i) {
    std::strcpy(h.names[i], pairs[i][0]);
    std::strcpy(h.values[i], pairs[i][1]);
  }
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
  nv_header h;
  DestroyHeader(&h);
  std::strcpy(h.names[3], "stale");
  {
    socket_pair w("Request: test\r\n\r\n");
    EXPECT_EQ(RvcHeader(w.in.get(), &h), 1);
    EXPECT_STREQ(h.names[0], "Request");
    EXPECT_STREQ(h.values[0], "test");
    EXPECT_STREQ(h.names[3], "");  // cleared before reading
    EXPECT_EQ(h.excess, kExcessNone);
  }
  {
    socket_pair w("\nRequest: next\n\n");
    EXPECT_EQ(RvcHeader(w.in.get(), &h), 0);
    EXPECT_EQ(RvcHeader(w.in.get(), &h), 1);
    EXPECT_STREQ(h.values[0], "next");
  }
  {
    socket_pair w("Request: putFile\r\ncontent-length: 5\r\n\r\nHELLO");
    EXPECT_EQ(RvcHeader(w.in.get(), &h), 2);
    EXPECT_STREQ(GetNVPair_Value(&h, "Content-Length"), "5");
    EXPECT_EQ(w.read(16), "HELLO");
  }
  {
    // A line of blanks is a pair with an empty name, which hides what follows.
    socket_pair w("Request: t\r\n   \r\na: b\r\nk: v\xe9x\r\n\r\n");
    EXPECT_EQ(RvcHeader(w.in.get(), &h), 4);
    EXPECT_STREQ(GetNVPair_Value(&h, "a"), "");
    EXPECT_STREQ(h.names[3], "k");  // a syntax error still counts as a pair
    EXPECT_STREQ(h.values[3], "v");
  }
}

TEST(RvcHeader, EndsOnPeerCloseAndOnTheTimeLimit) {
  nv_header h;
  {
    socket_pair w("Request: t\r\nx: 1\r\npartial", true);
    EXPECT_EQ(RvcHeader(w.in.get(), &h), 2);
    EXPECT_STREQ(h.values[1], "1");
  }
  {
    socket_pair w("", true);
    EXPECT_EQ(RvcHeader(w.in.get(), &h), 0);
  }
  // A colon without a blank holds the connection until the time limit, as
  // does a header that is never completed.
  for (const char* bytes : {"Request: t\r\nbad:value\r\n\r\n", "Request: t\r\n"}) {
    socket_pair w(bytes);
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_header(w.in.get(), &h, 20), 0) << bytes;
    EXPECT_NE(testing::internal::GetCapturedStdout().find("TIMEOUT !!"), std::string::npos);
  }
}

TEST(RvcHeader, RecordsExcessWithoutWritingPastFields) {
  nv_header h;
  auto read_one = [&h](const std::string& bytes) {
    socket_pair w(bytes + "\r\n");
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
