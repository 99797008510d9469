#include "server/worker.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "lib/bounded.h"
#include "lib/unique_fd.h"
#include "protocol/stream.h"

namespace {

// A reader that yields "have" bytes in all, announced as "size" bytes.
long long g_left;
int counting_reader(std::intptr_t /*ctx*/, char* buf, int size) {
  int n = g_left < size ? static_cast<int>(g_left) : size;
  for (int i = 0; i < n; ++i) buf[i] = 'x';
  g_left -= n;
  return n;
}

int data_handler(vesk_request* request, resp_obj* resp) {
  char size[kArgumentSize], have[kArgumentSize];
  svr_GetArgument(request, "size", size);
  svr_GetArgument(request, "have", have);
  resp->type = kReplyData;
  bounded_copy(resp->content_type, "text/plain");
  resp->data.ptr = nullptr;
  resp->data.size = std::stoll(size);
  g_left = std::stoll(have);
  resp->reader = counting_reader;
  return 1;
}

// Serves `requests` in a worker process; everything it sent until it ended.
std::string serve(const std::string& requests) {
  int sv[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  unique_fd peer(sv[1]);
  pid_t child = fork();
  if (child == 0) {
    ::close(sv[1]);
    rx_stream_reset();
    serve_connection(sv[0], data_handler, 1000);
    _exit(0);
  }
  ::close(sv[0]);
  EXPECT_TRUE(send_all(peer.get(), requests.data(), requests.size()));
  shutdown(peer.get(), SHUT_WR);
  std::string out;
  char buf[4096];
  for (ssize_t n; (n = read(peer.get(), buf, sizeof buf)) > 0;) out.append(buf, n);
  waitpid(child, nullptr, 0);
  return out;
}

std::string ask_for(int size, int have) {
  return "Request: data\r\nsize: " + std::to_string(size) + "\r\nhave: " + std::to_string(have) +
         "\r\n\r\n";
}

std::string reply(int size, const std::string& body) {
  return "Reply: Data\r\nContent-length: " + std::to_string(size) +
         "\r\nContent-Type: text/plain\r\n\r\n" + body;
}

}  // namespace

TEST(Worker, DataBodyIsExactlyItsContentLength) {
  // A reader with more is cut at the announced length, and the connection
  // goes on with the next request.
  EXPECT_EQ(serve(ask_for(10, 3000) + ask_for(2049, 2049)),
            reply(10, std::string(10, 'x')) + reply(2049, std::string(2049, 'x')));
  // A reader with fewer: the short body, then the connection ends.
  EXPECT_EQ(serve(ask_for(5000, 100) + ask_for(1, 1)), reply(5000, std::string(100, 'x')));
}
