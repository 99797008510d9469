// The client library against a sandboxed koltad: the reply dispatch of
// getFile, request objects carried out with vesk_c_action, and a large
// round trip through the streaming calls.
#include <fcntl.h>
#include <sys/stat.h>

#include "client/connection.h"
#include "client/session.h"
#include "tests/support/wire.h"

namespace kolta_test {
namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

using ClientLibrary = DaemonTest;

std::string g_body;
long collect(long length, const char* block, vesk_c_obj*) {
  g_body.append(block, static_cast<std::size_t>(length));
  return length;
}

// Carries out `command` with `args` (added in this order) on a fresh
// connection; the action's result, the body in g_body.
int action(int port, const char* command, const Args& args = {}) {
  g_body.clear();
  int fd = vesk_c_open("unused", port);
  EXPECT_NE(fd, 0);
  vesk_c_obj obj;
  VESK_C_OBJ_new(&obj, command);
  for (const auto& [name, value] : args) VESK_C_OBJ_addArgument(&obj, name.c_str(), value.c_str());
  VESK_C_OBJ_DataHandler(&obj, collect, static_cast<const char*>(nullptr));
  int result = vesk_c_action(&obj);
  VESK_C_OBJ_destroy(&obj);
  vesk_c_close(fd);
  return result;
}

TEST_F(ClientLibrary, GetFileAndActionsAgainstTheDaemon) {
  write_file("/tmp/hello.txt", "hello");
  CaptureStdout();
  int fd = vesk_c_open("unused", sb_.port());
  ASSERT_NE(fd, 0);
  EXPECT_EQ(getFile(fd, "/tmp/hello.txt"), 0);
  vesk_c_close(fd);
  fd = vesk_c_open("unused", sb_.port());
  EXPECT_EQ(getFile(fd, "/tmp/missing"), 0);
  vesk_c_close(fd);
  EXPECT_EQ(action(sb_.port(), "test"), 0);
  std::string out = GetCapturedStdout();
  EXPECT_NE(out.find("Request: getfile\r\nFile: /tmp/hello.txt\r\nResponse: [Data]\nCall handler ..\n"
                     "Data-Handler\nData-ContentTypeType: [file/binary]\nData handled.\n"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("Response: [Fail]\nCall handler ..\nnot nice - fail !\n"), std::string::npos);
  EXPECT_NE(out.find("vesk_c_action()\nRequest: test\r\nResponse: [Success]\nCall handler ..\n"
                     "nice - success !\n"),
            std::string::npos);
  EXPECT_EQ(client_reply_record().data.size, 5);  // from the getfile reply, kept since

  CaptureStdout();
  EXPECT_EQ(action(sb_.port(), "system", {{"cmd", "seq 1 3000"}}), 0);
  std::string expected;
  for (int i = 1; i <= 3000; ++i) expected += std::to_string(i) + "\n";
  EXPECT_EQ(g_body, expected.substr(0, 8192));  // the reply carries the first 8 KiB
  EXPECT_EQ(action(sb_.port(), "version"), 0);
  EXPECT_EQ(g_body.rfind("DEVICE=KOLTA\nVERSION_SW=05.00\n", 0), 0u) << g_body;
  EXPECT_NE(action(sb_.port(), "system", {{"cmd", "false"}}), 0);
  GetCapturedStdout();
}

bool sink_to_string(void* ctx, const char* data, std::size_t length) {
  static_cast<std::string*>(ctx)->append(data, length);
  return true;
}

TEST_F(ClientLibrary, StreamingRoundTripIsByteExact) {
  const std::string body = random_bytes(std::size_t{64} << 20, 7);
  const std::string local = sb_.host_dir() + "/upload.bin";
  {
    std::ofstream(local, std::ios::binary) << body;
  }
  unique_fd src(::open(local.c_str(), O_RDONLY));
  ASSERT_TRUE(src.ok());

  vesk_c_conn conn;
  ASSERT_EQ(vesk_c_connect(&conn, "localhost", sb_.port(), 5000), vesk_c_status::ok);
  const std::string sig = md5_text(body), length = std::to_string(body.size());
  const vesk_c_pair put[] = {{"file", "/tmp/big.bin"}, {"md5_sig", sig.c_str()},
                             {"content-length", length.c_str()}};
  ASSERT_EQ(vesk_c_send_request(&conn, "putFile", put), vesk_c_status::ok);
  std::uint64_t last_progress = 0;
  auto progress = [](void* ctx, std::uint64_t done, std::uint64_t) {
    *static_cast<std::uint64_t*>(ctx) = done;
  };
  ASSERT_EQ(vesk_c_send_body(&conn, src.get(), body.size(), progress, &last_progress),
            vesk_c_status::ok);
  EXPECT_EQ(last_progress, body.size());
  vesk_c_reply reply;
  conn.timeout_ms = 120000;
  ASSERT_EQ(vesk_c_read_reply(&conn, &reply), vesk_c_status::ok);
  EXPECT_EQ(reply.kind, vesk_c_reply_kind::success);

  // The connection stays open for the download.
  const vesk_c_pair get[] = {{"file", "/tmp/big.bin"}};
  ASSERT_EQ(vesk_c_send_request(&conn, "getFile", get), vesk_c_status::ok);
  ASSERT_EQ(vesk_c_read_reply(&conn, &reply), vesk_c_status::ok);
  ASSERT_EQ(reply.kind, vesk_c_reply_kind::data);
  EXPECT_STREQ(reply.content_type, "file/binary");
  EXPECT_EQ(reply.content_length, body.size());
  std::string back;
  ASSERT_EQ(vesk_c_read_body(&conn, reply, sink_to_string, &back), vesk_c_status::ok);
  EXPECT_TRUE(back == body) << "the download differs from the upload";

  // A Fail reply hands over its reason exactly; the connection is still usable.
  const vesk_c_pair missing[] = {{"file", "/tmp/missing"}};
  ASSERT_EQ(vesk_c_send_request(&conn, "remFile", missing), vesk_c_status::ok);
  ASSERT_EQ(vesk_c_read_reply(&conn, &reply), vesk_c_status::ok);
  EXPECT_EQ(reply.kind, vesk_c_reply_kind::fail);
  EXPECT_STREQ(reply.reason, "File not found.");
  ASSERT_EQ(vesk_c_send_request(&conn, "test", {}), vesk_c_status::ok);
  ASSERT_EQ(vesk_c_read_reply(&conn, &reply), vesk_c_status::ok);
  EXPECT_EQ(reply.kind, vesk_c_reply_kind::success);
  // "test" closes the connection after its reply.
  EXPECT_EQ(vesk_c_read_reply(&conn, &reply), vesk_c_status::closed);
  vesk_c_disconnect(&conn);

  // Refusals before anything is sent, and a port nobody listens on.
  ASSERT_EQ(vesk_c_connect(&conn, "127.0.0.1", sb_.port(), 5000), vesk_c_status::ok);
  const std::string too_long(128, 'x');
  const vesk_c_pair bad[] = {{"cmd", too_long.c_str()}};
  EXPECT_EQ(vesk_c_send_request(&conn, "system", bad), vesk_c_status::local_error);
  const vesk_c_pair line_end[] = {{"cmd", "a\r\nRequest: exitapp"}};
  EXPECT_EQ(vesk_c_send_request(&conn, "system", line_end), vesk_c_status::local_error);
  vesk_c_disconnect(&conn);
  EXPECT_EQ(vesk_c_connect(&conn, "127.0.0.1", free_port(), 2000), vesk_c_status::connect_failed);
  EXPECT_EQ(conn.error, ECONNREFUSED);
  EXPECT_EQ(vesk_c_connect(&conn, "no-such-host.invalid", 1, 2000), vesk_c_status::resolve_failed);
}

}  // namespace
}  // namespace kolta_test
