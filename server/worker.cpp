#include "server/worker.h"

#include <cstdio>
#include <unistd.h>

#include "lib/bounded.h"
#include "protocol/body.h"
#include "protocol/reply.h"
#include "protocol/stream.h"
#include "server/dispatcher.h"
#include "server/worker_process.h"

namespace {

constexpr std::size_t kGatheredSendSize = 64 * 1024;

// Sends a Data reply's body: exactly the Content-length it announced. A
// reader that has more is cut there; one that ends early leaves the
// connection unusable. False when the connection must end.
bool send_data_body(int sock, resp_obj& resp) {
  const unsigned long long announced =
      resp.data.size > 0 ? static_cast<unsigned long long>(resp.data.size) : 0;
  if (resp.data.ptr != nullptr) {
    if (!send_all(sock, resp.data.ptr, announced)) broken_connection();
    return true;
  }
  if (resp.reader == nullptr) return announced == 0;
  // The reader is called for blocks of 2048 bytes; they go out gathered.
  static char gathered[kGatheredSendSize];
  std::size_t pending = 0;
  auto send_gathered = [&] {
    std::fflush(stdout);  // the reader's lines, before a write that can wait for the peer
    if (pending > 0 && !send_all(sock, gathered, pending)) broken_connection();
    pending = 0;
  };
  unsigned long long produced = 0;
  while (produced < announced) {
    const unsigned long long left = announced - produced;
    const int want = left < kReaderBlockSize ? static_cast<int>(left) : kReaderBlockSize;
    if (pending + static_cast<std::size_t>(want) > sizeof gathered) send_gathered();
    int n = resp.reader(resp.reader_ctx, gathered + pending, want);
    if (n <= 0) {
      send_gathered();
      std::fprintf(stderr, "VESK_S: pid=%d data ended after %llu of %llu bytes, closing\n",
                   getpid(), produced, announced);
      return false;
    }
    if (n > want) n = want;
    pending += static_cast<std::size_t>(n);
    produced += static_cast<unsigned long long>(n);
  }
  send_gathered();
  char last[kReaderBlockSize];
  resp.reader(resp.reader_ctx, last, 0);  // the reader lets go of what it holds
  return true;
}

// Sends the reply that `resp.type` selects. Any failed write is a broken
// connection. False when the connection must end after it.
bool send_reply(int sock, resp_obj& resp) {
  char header[kReplyHeaderSize];
  std::size_t header_len = format_reply_header(resp, header);
  switch (resp.type) {
    case kReplySuccess:
      // The worker's lines go out together after the reply: before it waits
      // for the next request, or as it ends.
      std::printf("VESK_S: pid=%d REPLY SUCCESS: [%s]\n", getpid(), kReplySuccessLine);
      if (!send_all(sock, header, header_len)) broken_connection();
      return true;

    case kReplyFail:
      std::printf("VESK_S: pid=%d REPLY FAIL: Reason: [%.*s]\n", getpid(),
                  static_cast<int>(bounded_length(resp.text)), resp.text);
      std::fflush(stdout);
      if (!send_all(sock, header, header_len)) broken_connection();
      return true;

    case kReplyData:
      std::printf("VESK_S: pid=%d REPLY DATA: Size=%lld, Content-Type=%.*s\n", getpid(),
                  static_cast<long long>(resp.data.size),
                  static_cast<int>(bounded_length(resp.content_type)), resp.content_type);
      std::fflush(stdout);
      if (!send_all(sock, header, header_len)) broken_connection();
      pause_before_data_body();
      return send_data_body(sock, resp);

    default:
      return true;
  }
}

}  // namespace

void serve_connection(int sock, command_fn handler, int header_timeout_ms) {
  vesk_request request{};
  resp_obj resp{};
  resp.type = kReplySuccess;

  for (;;) {
    std::fflush(stdout);  // the last reply's lines, before waiting for the next request
    if (read_header(sock, &request.header, header_timeout_ms) == 0) return;
    if ((request.header.excess & kExcessFirstValue) != 0 ||
        !bounded_copy(request.command, request.header.values[0])) {
      end_worker_without_reply("command name of 128 characters or more");
    }

    int keep = 0;
    if ((request.header.excess & kExcessLimits) != 0) {
      reply_fail(&resp, kHeaderLimitsReason);
    } else {
      keep = handler(&request, &resp);
    }

    if (resp.rx_pending != 0) {
      resp.rx_pending = 0;
      if (!RcvData(sock, resp.writer, &request, &resp)) {
        std::fprintf(stderr, "VESK_S: pid=%d peer closed during the data body, worker ends\n",
                     getpid());
        std::fflush(stderr);
        return;
      }
    }
    DestroyHeader(&request.header);

    if (!send_reply(sock, resp)) return;
    if (keep == 0) return;
  }
}
