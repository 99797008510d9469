#include "protocol/reply.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>

namespace {

std::string header_of(const resp_obj& resp) {
  std::array<char, kReplyHeaderSize> out;
  std::size_t n = format_reply_header(resp, out);
  return std::string(out.data(), n);
}

}  // namespace

TEST(ReplyHeader, TheThreeFormsByteForByte) {
  resp_obj resp{};
  resp.type = kReplySuccess;
  std::strcpy(resp.text, "OK");  // never sent with Success
  EXPECT_EQ(header_of(resp), "Reply: Success\r\n\r\n");

  resp.type = kReplyFail;
  std::strcpy(resp.text, "`nosuch' illegal command");
  EXPECT_EQ(header_of(resp), "Reply: Fail\r\nReason: `nosuch' illegal command\r\n\r\n");

  resp.type = kReplyData;
  std::strcpy(resp.content_type, "text/plain");
  resp.data.size = 0;
  EXPECT_EQ(header_of(resp),
            "Reply: Data\r\nContent-length: 0\r\nContent-Type: text/plain\r\n\r\n");
  std::strcpy(resp.content_type, "file/binary");
  resp.data.size = 1048576;
  EXPECT_EQ(header_of(resp),
            "Reply: Data\r\nContent-length: 1048576\r\nContent-Type: file/binary\r\n\r\n");

  resp.type = 3;
  EXPECT_EQ(header_of(resp), "");
  resp.type = -1;
  EXPECT_EQ(header_of(resp), "");
}
