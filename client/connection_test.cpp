#include "client/connection.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/scripted_server.h"

namespace {

using kolta_test::ScriptedServer;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

std::string run_get_file(const std::string& reply, int* result) {
  ScriptedServer server({reply});
  CaptureStdout();
  int fd = vesk_c_open("192.0.2.1", server.port());  // the host is not consulted
  *result = fd == 0 ? -1 : getFile(fd, "/tmp/a");
  if (fd != 0) vesk_c_close(fd);
  std::string out = GetCapturedStdout();
  EXPECT_EQ(server.requests(), std::vector<std::string>{"Request: getfile\r\nFile: /tmp/a\r\n\r\n"});
  return out;
}

TEST(ClientConnection, GetFileDispatchesEveryReplyType) {
  int result = -1;
  EXPECT_EQ(run_get_file("Reply: Success\r\n\r\n", &result),
            "try connection ..connected.\ngetfile()\nRequest: getfile\r\nFile: /tmp/a\r\n"
            "Response: [Success]\nCall handler ..\nnice - success !\nsocket closed.\n");
  EXPECT_EQ(result, 0);

  EXPECT_NE(run_get_file("Reply: Fail\r\nReason: nope\r\n\r\n", &result)
                .find("Response: [Fail]\nCall handler ..\nnot nice - fail !\n"),
            std::string::npos);
  EXPECT_EQ(result, 0);

  EXPECT_NE(run_get_file("Reply: Control\r\n\r\n", &result)
                .find("Response: [Control]\n`Control' not implemented\r\n"
                      "\nERROR: Server sent unknown reply !!!!!!\n\a\n"),
            std::string::npos);
  EXPECT_EQ(result, 1);

  // No "Reply" line: an empty name that matches nothing; the size stays.
  client_reply_record().data.size = 77;
  std::string out = run_get_file("Other: x\r\n\r\n", &result);
  EXPECT_NE(out.find("Response: []\nsocket closed.\n"), std::string::npos) << out;
  EXPECT_EQ(result, 0);
  EXPECT_EQ(client_reply_record().data.size, 77);

  out = run_get_file("Reply: Data\r\nContent-length: 5\r\nContent-Type: text/plain\r\n\r\nhello",
                     &result);
  EXPECT_NE(out.find("Data-Handler\nData-ContentTypeType: [text/plain]\ndefault mime handler\n"
                     "resp_obj->data.size = 5\nData handled.\n"),
            std::string::npos)
      << out;
  EXPECT_EQ(result, 0);
}

std::string g_body;
long collect(long length, const char* block, vesk_c_obj*) {
  g_body.append(block, static_cast<std::size_t>(length));
  return length;
}

int run_action(const std::string& reply) {
  ScriptedServer server({reply});
  g_body.clear();
  CaptureStdout();
  int fd = vesk_c_open("", server.port());
  vesk_c_obj obj;
  VESK_C_OBJ_new(&obj, "system");
  VESK_C_OBJ_addArgument(&obj, "cmd", "ls");
  VESK_C_OBJ_DataHandler(&obj, collect, static_cast<const char*>(nullptr));
  int result = vesk_c_action(&obj);
  VESK_C_OBJ_destroy(&obj);
  vesk_c_close(fd);
  GetCapturedStdout();
  EXPECT_EQ(server.requests(), std::vector<std::string>{"Request: system\r\ncmd: ls\r\n\r\n"});
  return result;
}

TEST(ClientConnection, ActionDeliversTheWholeBodyOrFails) {
  const std::string body(5000, 'b');
  EXPECT_EQ(run_action("Reply: Data\r\nContent-length: 5000\r\nContent-Type: file/binary\r\n\r\n" + body), 0);
  EXPECT_EQ(g_body, body);
  EXPECT_EQ(run_action("Reply: Success\r\n\r\n"), 0);
  EXPECT_NE(run_action("Reply: Fail\r\nReason: x\r\n\r\n"), 0);
  EXPECT_NE(run_action("Reply: Data\r\nContent-length: 10\r\nContent-Type: text/plain\r\n\r\nabcd"), 0);
  EXPECT_EQ(g_body, "abcd");
  EXPECT_NE(run_action("Reply: Data\r\nContent-Type: text/plain\r\n\r\n"), 0);
  EXPECT_NE(run_action("Reply: Control\r\n\r\n"), 0);
}

TEST(ClientConnection, OpenWithoutServerFailsSilently) {
  int port;
  { ScriptedServer gone({}); port = gone.port(); }
  CaptureStdout();
  EXPECT_EQ(vesk_c_open("127.0.0.1", port), 0);
  EXPECT_EQ(GetCapturedStdout(), "try connection ..");
  EXPECT_GT(sock, 0);  // the socket that could not connect stays open
  ::close(sock);
}

}  // namespace
